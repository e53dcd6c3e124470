#pragma once

// Keeps caught UNIX signals away from a wait inside libsystemd, which gives up with EINTR as soon
// as a handler has run, also under SA_RESTART, although its request is on its way.

#include <csignal>

namespace bmcbus
{

// While one exists, the calling thread's signals stay blocked and are handled when it ends; another
// thread that does not block them handles them at once. Left alone are those that report a fault of
// the thread itself (SIGSEGV and its like, SIGABRT) and those by which a process that does not
// catch them is ended or stopped (SIGTERM, SIGINT and their like). Nothing it does can fail.
class SignalShield
{
  public:
    SignalShield();
    ~SignalShield() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalShield(const SignalShield&) = delete;
    SignalShield& operator=(const SignalShield&) = delete;

  private:
    sigset_t before_;
};

} // namespace bmcbus
