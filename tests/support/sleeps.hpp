#pragma once

// Tells whether a thread has begun to wait.

#include <unistd.h>

#include <fstream>
#include <ios>
#include <limits>
#include <string>

namespace test
{

// Whether a thread of this process sleeps, as it does while it waits for a lock or a semaphore.
inline bool Sleeps(pid_t thread)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    char state = '?';
    status.ignore(std::numeric_limits<std::streamsize>::max(), ')') >> state;
    return state == 'S';
}

} // namespace test
