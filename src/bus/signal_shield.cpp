// Which signals are blocked during a wait: all but those that report a fault, and but the few by
// which people and supervisors end a process. Those few are blocked only where a handler catches
// them: uncaught they interrupt no wait, and must still end the process. To ask the same about all
// others is not worth the system calls.

#include "bus/signal_shield.hpp"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sys/syscall.h>
#include <unistd.h>

namespace bmcbus
{
namespace
{

constexpr int faults[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS};
constexpr int ends[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGTSTP};

// All that is blocked without asking.
sigset_t Always()
{
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int number : faults)
    {
        sigdelset(&blocked, number);
    }
    for (const int number : ends)
    {
        sigdelset(&blocked, number);
    }
    return blocked;
}

#if defined(__x86_64__) || defined(__i386__) || defined(__aarch64__) || defined(__arm__)

// What the kernel has of an action begins with the handler on these processors.
struct KernelAction
{
    uintptr_t handler;
    unsigned long rest[7];
};
constexpr long setBytes = 8; // of the kernel's set of signals

#if defined(__x86_64__)

long AskKernel(long number, KernelAction& action)
{
    long result = SYS_rt_sigaction;
    register long size asm("r10") = setBytes;
    asm volatile("syscall"
                 : "+a"(result), "=m"(action)
                 : "D"(number), "S"(nullptr), "d"(&action), "r"(size)
                 : "rcx", "r11");
    return result;
}

#else

long AskKernel(long number, KernelAction& action)
{
    return syscall(SYS_rt_sigaction, number, nullptr, &action, setBytes);
}

#endif

// Not by sigaction(): it copies the rest into its own form, which costs more than the question, and
// before every wait there are six of them.
bool IsCaught(int number)
{
    constexpr uintptr_t ignored = 1; // SIG_IGN; SIG_DFL is zero
    KernelAction action;
    return AskKernel(number, action) != 0 || action.handler > ignored;
}

#else

bool IsCaught(int number)
{
    struct sigaction action = {};
    return sigaction(number, nullptr, &action) != 0 ||
           (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

#endif

} // namespace

SignalShield::SignalShield()
{
    static const sigset_t always = Always();
    unsigned caught = 0; // a bit for each of `ends`
#pragma GCC unroll 6
    for (size_t i = 0; i < std::size(ends); ++i)
    {
        caught |= unsigned{IsCaught(ends[i])} << i;
    }
    sigset_t more;
    if (caught != 0)
    {
        more = always;
        for (size_t i = 0; i < std::size(ends); ++i)
        {
            if ((caught >> i & 1U) != 0)
            {
                sigaddset(&more, ends[i]);
            }
        }
    }
    pthread_sigmask(SIG_BLOCK, caught != 0 ? &more : &always, &before_);
}

} // namespace bmcbus
