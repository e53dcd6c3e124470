#pragma once

// The change callbacks of an object, and the end of every signal handler.

#include <bmcbus/client/object.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace bmcbus::client
{

// A list never changes once it is made; adding makes a new one. So taking a copy for a signal costs
// one counter and no memory.
using CallbackList = std::shared_ptr<const std::vector<Callback>>;

// In the order added.
class Callbacks
{
  public:
    CallbackList list;
};

// An object of a class that is only known by its tables, made and not yet registered.
using MadeObject = std::unique_ptr<void, void (*)(void*)>;

// The callbacks of the moment, under the object's mutex.
CallbackList CopyCallbacks(Anchor& anchor);

// Counts one signal; the counter is never 0 again after the first.
constexpr void CountSignal(uint32_t& count)
{
    if (++count == 0)
    {
        count = 1;
    }
}

// No test lives to see the last number.
static_assert(
    []
    {
        uint32_t last = UINT32_MAX;
        CountSignal(last);
        return last;
    }() == 1);

// Runs `callbacks` until one releases the object, and logs the handler's last line.
void RunCallbacks(Anchor& anchor, const char* function, const CallbackList& callbacks);

} // namespace bmcbus::client
