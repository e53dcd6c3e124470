#pragma once

// Keeps UNIX signals away from the library's own threads.

#include <pthread.h>
#include <signal.h>

namespace bmcbus
{

// While it lives the calling thread, and a thread that it starts, gets no signal. A library's
// thread must not be the one through which a signal that the program waits for elsewhere ends the
// process. What a fault of the thread itself raises stays as it is: handlers of crashes want to see
// it.
class SignalsBlocked
{
  public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        {
            sigdelset(&all, fault);
        }
        pthread_sigmask(SIG_BLOCK, &all, &former);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &former, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t former;
};

} // namespace bmcbus
