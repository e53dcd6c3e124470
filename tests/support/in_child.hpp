#pragma once

// Children made by fork(), which end within a bound.

#include "sanitizer.hpp"

#include <linux/futex.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <string>
#include <system_error>
#include <thread>

namespace test
{

// A memory checker says so itself: it looks at all memory at each child's end, which takes seconds.
inline const bool memoryChecker = std::getenv("BMCBUS_MEMORY_CHECKER") != nullptr;

// Far beyond what the slowest machine under emulation and a sanitizer needs.
inline const unsigned int boundSeconds = memoryChecker ? 1200 : 120;

// How often to fork where it must go well again and again.
inline const int manyForks = memoryChecker ? 5 : 100;

// Whether a thread of this entry under /proc waits for a mutex beyond the addresses of a program of
// 32 bits. The emulator's housekeeping thread waits there as well, but not for a mutex.
inline bool WaitsBeyondItsAddresses(const std::filesystem::path& thread)
{
    constexpr long futexOnAmd64 = 202;
    constexpr long futexOnArm64 = 98;
    std::ifstream call(thread / "syscall");
    long number = 0;
    uint64_t address = 0;
    uint64_t operation = 0;
    return (call >> number >> std::hex >> address >> operation) && address > UINT32_MAX &&
           operation == FUTEX_WAIT_PRIVATE && (number == futexOnAmd64 || number == futexOnArm64);
}

// Whether a thread of a program of 32 bits waits for a lock of the emulator that runs it. A
// user-mode emulator does not put its locks in order in a child, so one that another thread held at
// the fork stays locked there. Nothing in this project can change that.
inline bool WaitsInEmulator(pid_t process)
{
    if constexpr (sizeof(void*) == sizeof(uint32_t))
    {
        std::error_code ended;
        std::filesystem::directory_iterator threads("/proc/" + std::to_string(process) + "/task",
                                                    ended);
        for (; !ended && threads != std::filesystem::directory_iterator(); threads.increment(ended))
        {
            if (WaitsBeyondItsAddresses(threads->path()))
            {
                return true;
            }
        }
    }
    return false;
}

// Waits for the child's end and gives its status; false if the child hangs for a reason that is not
// this project's. It is killed then. That is so in the emulator, and under ThreadSanitizer after a
// time that no child needs: its allocator has no fork handlers, so a child may wait for ever for a
// lock that an allocating thread held.
inline bool AwaitChild(pid_t child, int& status)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds longEnough{threadSanitizer ? 20 : 2};
    Clock::time_point lastAtWork = Clock::now();
    while (waitpid(child, &status, WNOHANG) == 0)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!threadSanitizer && !WaitsInEmulator(child))
        {
            lastAtWork = Clock::now();
        }
        else if (Clock::now() - lastAtWork > longEnough)
        {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return false;
        }
    }
    return true;
}

// What `work` returned in a child made by `makeChild`, or 1000 and more if the child did not end by
// itself.
inline int ExitOfChild(const std::function<int()>& work, pid_t (*makeChild)() = fork)
{
    constexpr int tries = 3;
    const pid_t parent = getpid();
    int status = -1;
    for (int i = 0; i < tries; ++i)
    {
        const pid_t child = makeChild();
        if (child == 0)
        {
            // None is left where its parent is killed, or was just now.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
            {
                _exit(1);
            }
            alarm(boundSeconds);
            _exit(work());
        }
        if (child < 0 || AwaitChild(child, status))
        {
            break;
        }
        std::fprintf(stderr, "child %d of %d hung, and is made again\n", child, parent);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + (status & 0xffff);
}

} // namespace test
