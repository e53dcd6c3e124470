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
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
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

// The system call in which a thread waits, by its entry under /proc.
struct WaitingCall
{
    long number = 0;
    uint64_t address = 0; // the call's first argument
    uint64_t operation = 0;
    uint64_t caller = 0; // where in the program the call was made
};

// Nothing where it runs or has ended.
inline std::optional<WaitingCall> CallOf(const std::filesystem::path& thread)
{
    std::ifstream file(thread / "syscall");
    WaitingCall call;
    if (!(file >> call.number >> std::hex >> call.address >> call.operation))
    {
        return std::nullopt;
    }
    while (file >> call.caller)
    {
    }
    return call;
}

// Whether this is a wait for a mutex beyond the addresses of a program of 32 bits. The emulator's
// housekeeping thread waits there as well, but not for a mutex.
inline bool WaitsBeyondItsAddresses(const WaitingCall& call)
{
    constexpr long futexOnAmd64 = 202;
    constexpr long futexOnArm64 = 98;
    return call.address > UINT32_MAX && call.operation == FUTEX_WAIT_PRIVATE &&
           (call.number == futexOnAmd64 || call.number == futexOnArm64);
}

// Whether an address of the process lies in a file whose name has this part.
inline bool LiesIn(const std::filesystem::path& process, uint64_t address, std::string_view name)
{
    std::ifstream maps(process / "maps");
    for (std::string line; std::getline(maps, line);)
    {
        uint64_t from = 0;
        uint64_t to = 0;
        char dash = 0;
        std::istringstream fields(line);
        if (fields >> std::hex >> from >> dash >> to && from <= address && address < to)
        {
            return line.find(name) != line.npos;
        }
    }
    return false;
}

// Whether a thread of the process waits for a lock of what runs or checks this program, rather than
// of the program: of an emulator for a program of 32 bits, or of AddressSanitizer. Neither puts its
// locks in order in a child, so one that another thread held at the fork stays locked there.
// Nothing in this project can change that. Locks of the program are waited for in the C library.
inline bool WaitsForOthersLock(pid_t process)
{
    constexpr bool emulated = sizeof(void*) == sizeof(uint32_t);
    if constexpr (!emulated && !addressSanitizer)
    {
        return false;
    }
    std::error_code ended;
    const auto folder = std::filesystem::path("/proc") / std::to_string(process);
    std::filesystem::directory_iterator threads(folder / "task", ended);
    for (; !ended && threads != std::filesystem::directory_iterator(); threads.increment(ended))
    {
        const auto call = CallOf(threads->path());
        if (call && (emulated ? WaitsBeyondItsAddresses(*call)
                              : LiesIn(folder, call->caller, "/libasan.so")))
        {
            return true;
        }
    }
    return false;
}

// Waits for the child's end and gives its status; false if the child hangs for a reason that is not
// this project's. It is killed then. Under ThreadSanitizer that is so after a time that no child
// needs: its allocator has no fork handlers either, and other locks wait in its library, too.
inline bool AwaitChild(pid_t child, int& status)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds longEnough{threadSanitizer ? 20 : 2};
    Clock::time_point lastAtWork = Clock::now();
    while (waitpid(child, &status, WNOHANG) == 0)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!threadSanitizer && !WaitsForOthersLock(child))
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
