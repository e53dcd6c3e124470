#pragma once

// Threads that are ended from outside, by cancellation or pthread_exit().

#include <pthread.h>

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

// While it lives the calling thread cannot be cancelled: for what must not stop half-way. Most
// system calls, and so most lines of the log, are cancellation points.
class NoCancellation
{
  public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former); }
    ~NoCancellation() { pthread_setcancelstate(former, nullptr); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

  private:
    int former = PTHREAD_CANCEL_ENABLE;
};

} // namespace bmcbus
