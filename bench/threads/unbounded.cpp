// Producers that know no measure: four that post as fast as they can, or a message that posts
// itself again. Prints the seconds, and by how many KiB the process grew at most. Fails when a
// message is lost or comes out of order.
//
//   bench-unbounded producers|self LOOP COUNT

#include "loops.hpp"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <thread>
#include <vector>

namespace
{

constexpr int producers = 4;

struct Run
{
    bench::Loop& loop;
    const bench::Poster* poster = nullptr;
    long left;
    bool ordered = true;
    unsigned long last[producers] = {};
};

// KiB, from the kernel's view of this process.
long Memory(const std::string& what)
{
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word)
    {
        if (word == what + ":")
        {
            long kibibytes = 0;
            status >> kibibytes;
            return kibibytes;
        }
    }
    return -1;
}

void Finish(Run& run)
{
    if (--run.left == 0)
    {
        run.loop.Stop();
    }
}

// The data is where the producer's last number stands, the size its next one.
int Receive(void* context, void* data, unsigned long number)
{
    Run& run = *static_cast<Run*>(context);
    unsigned long& last = *static_cast<unsigned long*>(data);
    run.ordered = run.ordered && number == last + 1;
    last = number;
    Finish(run);
    return 0;
}

int PostAgain(void* context, void*, unsigned long)
{
    Run& run = *static_cast<Run*>(context);
    Finish(run);
    if (run.left > 0)
    {
        run.poster->Post(PostAgain, nullptr, 0);
    }
    return 0;
}

void Produce(const bench::Poster& poster, unsigned long& last, long count)
{
    for (long number = 1; number <= count; ++number)
    {
        poster.Post(Receive, &last, static_cast<unsigned long>(number));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: bench-unbounded producers|self LOOP COUNT\n";
        return 2;
    }
    const auto loop = bench::MakeLoop(argv[2]);
    Run run{.loop = *loop, .left = std::stol(argv[3])};
    const bench::Poster poster("library", *loop, &run);
    run.poster = &poster;

    const long before = Memory("VmRSS");
    const auto began = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    if (std::string(argv[1]) == "self")
    {
        poster.Post(PostAgain, nullptr, 0);
    }
    else
    {
        const long share = run.left / producers;
        for (unsigned long& last : run.last)
        {
            threads.emplace_back(Produce, std::cref(poster), std::ref(last), share);
        }
    }
    loop->Run();
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    std::printf("%.2f %ld\n", took.count(), Memory("VmHWM") - before);
    return run.ordered && run.left == 0 ? 0 : 1;
}
