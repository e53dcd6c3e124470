// Posts in bursts: each burst begins when the last one has been run to its end. Without producers
// the loop's own thread posts, which is what an instruction counter can count.
//
//   bench-posts library|once|plain|asio LOOP PRODUCERS BURSTS

#include "loops.hpp"
#include <cost.hpp>

#include <cstdlib>
#include <deque>
#include <iostream>
#include <semaphore>
#include <thread>
#include <vector>

namespace
{

constexpr long burst = 16000;

struct Run
{
    bench::Loop& loop;
    long producers;
    long expected;
    long received = 0;
    std::deque<std::binary_semaphore> next; // one for each, so that nobody takes another's turn
};

int Count(void* context, void*, unsigned long)
{
    Run& run = *static_cast<Run*>(context);
    if (++run.received % burst == 0)
    {
        for (std::binary_semaphore& producer : run.next)
        {
            producer.release();
        }
    }
    if (run.received == run.expected)
    {
        run.loop.Stop();
    }
    return 0;
}

void PostMany(const bench::Poster& poster, long count)
{
    for (long i = 0; i < count; ++i)
    {
        poster.Post(Count, nullptr, 0);
    }
}

void Produce(const bench::Poster& poster, Run& run, std::binary_semaphore& next)
{
    for (long posted = 0; posted < run.expected; posted += burst)
    {
        PostMany(poster, burst / run.producers);
        next.acquire();
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::cerr << "usage: bench-posts library|once|plain|asio LOOP PRODUCERS BURSTS\n";
        return 2;
    }
    const auto loop = bench::MakeLoop(argv[2]);
    Run run{.loop = *loop,
            .producers = std::stol(argv[3]),
            .expected = std::stol(argv[4]) * burst,
            .next = {}};
    const bench::Poster poster(argv[1], *loop, &run);

    const bench::Stopwatch stopwatch;
    for (long i = 0; i < run.producers; ++i)
    {
        run.next.emplace_back(0);
    }
    std::vector<std::thread> producers;
    for (std::binary_semaphore& next : run.next)
    {
        producers.emplace_back(Produce, std::cref(poster), std::ref(run), std::ref(next));
    }
    if (producers.empty())
    {
        PostMany(poster, run.expected);
    }
    loop->Run();
    for (std::thread& producer : producers)
    {
        producer.join();
    }
    stopwatch.Print(run.expected);
    return 0;
}
