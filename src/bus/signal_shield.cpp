#include "bus/signal_shield.hpp"

// A signal without a handler interrupts no wait. So what is not caught may stay unblocked, and has
// to where somebody waits for the process to end; asking about the others is not worth the system
// calls.

namespace bmcbus
{
namespace
{

constexpr int faults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS};
constexpr int ends[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGTSTP};

bool IsCaught(int number)
{
    struct sigaction action = {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
           action.sa_handler != SIG_IGN;
}

} // namespace

SignalShield::SignalShield()
{
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int number : faults)
    {
        sigdelset(&blocked, number);
    }
    for (const int number : ends)
    {
        if (!IsCaught(number))
        {
            sigdelset(&blocked, number);
        }
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &before_);
}

} // namespace bmcbus
