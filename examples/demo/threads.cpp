// Work that changes threads.

#include "acts.hpp"

#include <oneway_channel.hpp>
#include <threadfunnel.hpp>
#include <threadfunnel_over_owc.hpp>
#include <yetanotherthreadpool.hpp>

#include <systemd/sd-event.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace demo
{
namespace
{

constexpr int producers = 4;
constexpr int posts = 1000; // of each

void SendThroughFunnel(Report& report)
{
    std::thread::id ranOn;
    std::function<void()> work = [&] { ranOn = std::this_thread::get_id(); };
    TF_init_and_send_work(work);
    const bool other = ranOn != std::thread::id() && ranOn != std::this_thread::get_id();
    report.Expect("a funnelled item ran on the funnel's thread before the send returned", other);

    std::function<void()> nested = [&] { TF_init_and_send_work(work); };
    TF_init_and_send_work(nested);
    report.Expect("an item that sends runs its own item at once", ranOn != std::thread::id());
}

// A loop on a thread of its own that drives the channel until the object goes.
class ChannelLoop
{
  public:
    ChannelLoop()
    {
        std::atomic<bool> registered = false;
        thread = std::thread(
            [&]
            {
                sd_event_new(&event);
                OneWayChannel_RegisterSDEvent(event, this);
                registered = true;
                registered.notify_one();
                sd_event_loop(event);
                OneWayChannel_Unregister();
                sd_event_unref(event);
            });
        registered.wait(false);
    }
    ~ChannelLoop()
    {
        OneWayChannel_Execute([](void* self, void*, unsigned long)
                              { return sd_event_exit(static_cast<ChannelLoop*>(self)->event, 0); },
                              nullptr, 0, 0);
        thread.join();
    }
    ChannelLoop(const ChannelLoop&) = delete;
    ChannelLoop& operator=(const ChannelLoop&) = delete;

    // Only the loop's thread touches it, so it needs no lock.
    int received = 0;

  private:
    sd_event* event = nullptr;
    std::thread thread;
};

void PostThroughChannel(Report& report)
{
    ChannelLoop loop;
    std::vector<std::thread> threads;
    threads.reserve(producers);
    for (int i = 0; i < producers; ++i)
    {
        threads.emplace_back(
            []
            {
                for (int post = 0; post < posts; ++post)
                {
                    OneWayChannel_Execute([](void* self, void*, unsigned long)
                                          { return ++static_cast<ChannelLoop*>(self)->received; },
                                          nullptr, 0, 0);
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    // A send over the channel waits for its turn, so all posts have run by then.
    int received = 0;
    std::function<void()> look = [&] { received = loop.received; };
    TFoOWC_init_and_send_work(look);
    report.Expect(std::to_string(received) + " posts of four threads ran on the loop's thread",
                  received == producers * posts);

    report.Line("a funnel send from the loop's thread, which a sender could be waiting for:");
    bool ran = false;
    OneWayChannel_Execute(
        [](void*, void* flag, unsigned long)
        {
            std::function<void()> work = [&] { *static_cast<bool*>(flag) = true; };
            TF_init_and_send_work(work);
            return 0;
        },
        &ran, sizeof(ran), 0);
    TFoOWC_init_and_send_work(look);
    report.Expect("it was refused", !ran);
}

void UsePool(Report& report)
{
    std::atomic<int> done = 0;
    {
        YetAnotherThreadPool pool(4);
        for (int task = 0; task < 100; ++task)
        {
            pool.enqueue([&] { ++done; });
        }
        report.Line("a task that throws:");
        pool.enqueue([] { throw std::runtime_error("as it was told to"); });
    } // waits for all of them
    report.Expect(std::to_string(done) + " tasks ran in a pool of four threads", done == 100);
}

} // namespace

void ChangeThreads(Report& report)
{
    report.Title("Work that changes threads");
    SendThroughFunnel(report);
    PostThroughChannel(report);
    UsePool(report);
}

} // namespace demo
