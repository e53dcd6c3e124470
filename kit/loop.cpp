// Work from other threads goes through a queue; an event descriptor wakes the loop for it.

#include "loop.hpp"

#include "quiet_thread.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace bmcbus::testing
{
Loop::Loop()
{
    sd_event* raw = nullptr;
    Check(sd_event_new(&raw), "sd_event_new");
    event.reset(raw);
    wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Check(wakeUp < 0 ? -errno : 0, "eventfd");
    sd_event_source* source = nullptr;
    Check(sd_event_add_io(raw, &source, wakeUp, EPOLLIN, OnWakeUp, this), "sd_event_add_io");
    wakeUpSource.reset(source);
    // Work from outside goes before what arrives on the bus.
    Check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT), "set priority");
    thread = QuietThread([raw] { sd_event_loop(raw); });
}

Loop::Loop(sd_event* existing) : event(sd_event_ref(existing)) {}

Loop::~Loop()
{
    if (thread.joinable())
    {
        Post([this] { sd_event_exit(event.get(), 0); });
        thread.join();
    }
    if (wakeUp >= 0)
    {
        close(wakeUp);
    }
}

void Loop::Post(std::function<void()> work)
{
    {
        const std::lock_guard lock(mutex);
        posted.push_back(std::move(work));
    }
    // Cannot fail but by overflow, which means that the loop is awake already.
    const uint64_t one = 1;
    static_cast<void>(!write(wakeUp, &one, sizeof(one)));
}

void Loop::RunPosted()
{
    while (true)
    {
        std::function<void()> work;
        {
            const std::lock_guard lock(mutex);
            if (posted.empty())
            {
                return;
            }
            work = std::move(posted.front());
            posted.pop_front();
        }
        work();
    }
}

int Loop::OnWakeUp(sd_event_source*, int fd, uint32_t, void* self)
{
    uint64_t count = 0;
    static_cast<void>(!read(fd, &count, sizeof(count)));
    static_cast<Loop*>(self)->RunPosted();
    return 0;
}

} // namespace bmcbus::testing
