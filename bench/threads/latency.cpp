// The time from a post to its function, one message at a time, so that the loop sleeps in between.
// Prints the median and the 99th percentile in nanoseconds.
//
//   bench-latency library|plain|asio LOOP POSTS

#include "loops.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <semaphore>
#include <thread>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;

struct Run
{
    bench::Loop& loop;
    size_t expected;
    Clock::time_point posted;
    std::binary_semaphore next{0};
    std::vector<double> taken; // nanoseconds
};

int Receive(void* context, void*, unsigned long)
{
    const Clock::time_point now = Clock::now();
    Run& run = *static_cast<Run*>(context);
    run.taken.push_back(std::chrono::duration<double, std::nano>(now - run.posted).count());
    if (run.taken.size() == run.expected)
    {
        run.loop.Stop();
    }
    run.next.release();
    return 0;
}

void Produce(const bench::Poster& poster, Run& run)
{
    for (size_t i = 0; i < run.expected; ++i)
    {
        run.posted = Clock::now();
        poster.Post(Receive, nullptr, 0);
        run.next.acquire();
    }
}

// That many of a hundred took no longer.
double Percentile(std::vector<double>& taken, size_t percent)
{
    const auto at = taken.begin() + static_cast<std::ptrdiff_t>(taken.size() * percent / 100);
    std::nth_element(taken.begin(), at, taken.end());
    return *at;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: bench-latency library|plain|asio LOOP POSTS\n";
        return 2;
    }
    const auto loop = bench::MakeLoop(argv[2]);
    Run run{.loop = *loop, .expected = std::stoul(argv[3]), .posted = {}, .taken = {}};
    run.taken.reserve(run.expected);
    const bench::Poster poster(argv[1], *loop, &run);
    std::thread producer(Produce, std::cref(poster), std::ref(run));
    loop->Run();
    producer.join();
    std::printf("%.0f %.0f\n", Percentile(run.taken, 50), Percentile(run.taken, 99));
    return 0;
}
