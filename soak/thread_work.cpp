// Work of the threading tools: posts, sends, pools, and loops that change in between.

#include "work.hpp"

#include <threadfunnel.hpp>
#include <threadfunnel_over_owc.hpp>
#include <yetanotherthreadpool.hpp>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace soak
{
namespace
{

// Threads that run the same work, joined at the end of their scope.
template <class Work>
std::vector<std::jthread> Threads(size_t count, Work work)
{
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < count; ++i)
    {
        threads.emplace_back(work);
    }
    return threads;
}

// Some threads post; `run` drives a loop until all of it has run on this thread.
template <class Run>
void PostAndRun(Scene& scene, Run run)
{
    const size_t producers = scene.random.Between(1, 3);
    const size_t posts = scene.random.Between(1, 200);
    size_t ran = 0; // the loop's thread alone counts
    std::atomic<size_t> refused = 0;
    const auto threads = Threads(producers,
                                 [&]
                                 {
                                     for (size_t i = 0; i < posts; ++i)
                                     {
                                         refused += test::Post([&] { ++ran; }) == 0 ? 0U : 1U;
                                     }
                                 });
    run([&] { return ran + refused == producers * posts; });
    Require(refused == 0, "the channel refused a post");
    scene.tally.posts += producers * posts;
}

void Post(Scene& scene)
{
    PostAndRun(scene,
               [&](const test::Condition& done) { scene.world.Wait("all posts have run", done); });
}

template <class Loop>
void PostToOther(Scene& scene)
{
    OneWayChannel_Unregister();
    {
        Loop loop;
        Require(loop.Register(nullptr) == 0, "the channel did not take another loop");
        PostAndRun(scene, [&](const test::Condition& done)
                   { Require(loop.Run(done), "posts to another loop did not run"); });
    }
    scene.world.RegisterChannel();
}

// The threads' items run one at a time, on the funnel's thread or on this one.
template <void (*send)(std::function<void()>&)>
void Send(Scene& scene)
{
    const size_t senders = scene.random.Between(1, 3);
    const size_t sends = scene.random.Between(1, 40);
    size_t ran = 0; // unguarded: that is the funnel's duty
    std::atomic<size_t> left = senders;
    const auto threads = Threads(senders,
                                 [&]
                                 {
                                     std::function<void()> item = [&] { ++ran; };
                                     for (size_t i = 0; i < sends; ++i)
                                     {
                                         send(item);
                                     }
                                     --left;
                                 });
    scene.world.Wait("all sends have returned", [&] { return left == 0; });
    Require(ran == senders * sends, "a send returned without its item having run");
    scene.tally.sends += ran;
}

// Tasks that count, throw, queue others, and call a service from their worker's own connection.
void UsePool(Scene& scene)
{
    const Place& fans = scene.objects.Fans();
    const bool up = scene.world.Up(fans.service);
    const size_t tasks = scene.random.Between(1, 40);
    const bool clear = scene.random.OneIn(4);
    std::atomic<size_t> ran = 0;
    std::atomic<size_t> failed = 0;
    {
        YetAnotherThreadPool pool(scene.random.Between(1, 4));
        for (size_t i = 0; i < tasks; ++i)
        {
            pool.enqueue(
                [&, i]
                {
                    ++ran;
                    if (i % 16 == 3)
                    {
                        throw std::runtime_error("thrown by a task");
                    }
                    failed += i % 16 == 5 && up && !ReadDirectly(fans) ? 1U : 0U;
                });
        }
        if (scene.random.OneIn(4))
        {
            pool.makeNewWorkerThread();
        }
        if (clear)
        {
            pool.clearQueue();
        }
    }
    Require(failed == 0, "a direct call from a pool's task failed");
    Require(clear ? ran <= tasks : ran == tasks, "a pool ended without all its tasks having run");
    scene.tally.tasks += ran;
}

} // namespace

std::vector<Operation> ThreadOperations()
{
    return {
        {"bursts of posts", 60, Post},
        {"bursts to a zloop", 10, PostToOther<test::ZLoop>},
        {"bursts to an io_context", 10, PostToOther<test::AsioLoop>},
        {"bursts to a poll loop", 10, PostToOther<test::PollLoop>},
        {"bursts through the funnel", 40, Send<TF_init_and_send_work>},
        {"bursts through funnel and channel", 40, Send<TFoOWC_init_and_send_work>},
        {"pools", 40, UsePool},
    };
}

} // namespace soak
