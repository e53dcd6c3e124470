#pragma once

// This program's own write, poll, read, pipe and zloop_poller, which fail when told to.

#include <atomic>

namespace test
{

struct Faults
{
    std::atomic<int> write = 0;   // the error number of failing triggers
    std::atomic<int> signals = 0; // that interrupt a trigger's write, or a look at the pipe
    std::atomic<bool> read = false;
    std::atomic<bool> pipe = false; // once: sanitizers look at objects through pipes
    std::atomic<bool> poller = false;
    std::atomic<long> triggers = 0; // that were written
};

extern Faults faults;

} // namespace test
