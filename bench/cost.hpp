#pragma once

// What a contender's work costs the processor. Wall time is shown beside it: on one core that is
// nobody else's both are the same, unless somebody waits for time to pass.

#include <chrono>
#include <cstdio>
#include <ctime>

namespace bench
{

class Stopwatch
{
  public:
    // Prints nanoseconds of processor and of wall time for each of `operations`.
    void Print(long operations) const
    {
        const double wall = std::chrono::duration<double, std::nano>(Clock::now() - began).count();
        const double each = 1.0 / static_cast<double>(operations);
        std::printf("%.1f %.1f\n", (ProcessorTime() - before) * each, wall * each);
    }

  private:
    using Clock = std::chrono::steady_clock;

    // Of all threads, the kernel's work for them included.
    static double ProcessorTime()
    {
        timespec now{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
    }

    double before = ProcessorTime();
    Clock::time_point began = Clock::now();
};

} // namespace bench
