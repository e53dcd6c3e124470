#pragma once

#include <exception>

namespace bmcbus
{

// In a handler for everything: whether pthread_exit or a cancellation is taking the thread down.
// Swallowing that would end the process. It passes as an exception that is none of C++'s, which
// shows in there being no current one; a handler that names its type would bind to a null object.
inline bool ThreadIsEnding() noexcept
{
    return std::current_exception() == nullptr;
}

} // namespace bmcbus
