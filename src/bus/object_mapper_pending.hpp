#pragma once

// What a pending question to the object mapper carries, from the request to its answer.

#include "bus/deadline.hpp"

#include <object_mapper.hpp>

#include <memory>

namespace ObjectMapper::internal
{

// The caller's callback and what our own part adds. It is freed exactly once: by the reply's
// handler before that calls back, or by the slot when there is no reply any more, because the call
// was cancelled or the connection went away.
template <class Callback>
struct Pending : Wrappers::CallbackRecord<Callback>
{
    void (*dropContext)(void*); // frees a context of our own; null for the caller's
    bmcbus::Deadline deadline;

    static void Drop(void* pending)
    {
        const std::unique_ptr<Pending> owned(static_cast<Pending*>(pending));
        if (owned && owned->dropContext != nullptr)
        {
            owned->dropContext(owned->context);
        }
    }
};

} // namespace ObjectMapper::internal
