#pragma once

#include <unistd.h>

// There where the build measures coverage.
extern "C" void __gcov_dump() __attribute__((weak));

namespace test
{

// Ends a forked child at once, as it should end: what it would run at exit is its parent's. What it
// covered is written first.
[[noreturn]] inline void EndChild(int status)
{
    if (__gcov_dump != nullptr)
    {
        __gcov_dump();
    }
    _exit(status);
}

} // namespace test
