#pragma once

// The one thread that may touch a service's connection: either a thread of the kit with an event
// loop of its own, or the caller's loop, in which case every call is made on the caller's thread.

#include "check.hpp"

#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace bmcbus::testing
{

class Loop
{
  public:
    // Starts a thread.
    Loop();
    // Uses a loop that the caller runs on the calling thread.
    explicit Loop(sd_event* existing);
    // Ends the thread; work that was posted before still runs.
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    sd_event* Event() const { return event.get(); }

    // True when the calling thread is the one that may touch the connection.
    bool Inside() const
    {
        return !thread.joinable() || std::this_thread::get_id() == thread.get_id();
    }

    // Runs `work` on the loop's thread, waits for it, hands its result or exception back.
    template <class Work>
    auto Run(Work&& work) -> decltype(work())
    {
        if (Inside())
        {
            return work();
        }
        // Shared, because the loop's thread may still be inside the task when the result is there.
        auto task =
            std::make_shared<std::packaged_task<decltype(work())()>>(std::forward<Work>(work));
        auto result = task->get_future();
        Post([task] { (*task)(); });
        return result.get();
    }

  private:
    void Post(std::function<void()> work);
    void RunPosted();
    static int OnWakeUp(sd_event_source* source, int fd, uint32_t events, void* self);

    Owned<sd_event> event;
    int wakeUp = -1;
    Owned<sd_event_source> wakeUpSource;
    std::mutex mutex;
    std::deque<std::function<void()>> posted;
    std::thread thread;
};

} // namespace bmcbus::testing
