// The one timer of a connection, for its calls' deadlines and for alarms: a source in the sd-event
// loop that the connection is attached to, a descriptor for all other loops, or both.

#include "bus/call_hub.hpp"

#include <bmcbus/dispatcher.hpp>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/timerfd.h>
#include <utility>

namespace bmcbus::detail
{

void Hub::Arm()
{
    FollowLoop();
    const uint64_t due = Next();
    if (due < armed)
    {
        SetTimers(due);
    }
    else if (alarms != nullptr && source != nullptr)
    {
        // A source that is off is not prepared before each wait, so a connection that is closed
        // would not be seen.
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    }
}

uint64_t Hub::Next() const
{
    uint64_t due = first != nullptr ? first->deadline : never;
    for (const Alarm* alarm = alarms; alarm != nullptr; alarm = alarm->next)
    {
        due = std::min(due, alarm->at);
    }
    return due;
}

void Hub::Add(Alarm& alarm)
{
    alarm.next = std::exchange(alarms, &alarm);
    Arm();
}

void Hub::Remove(Alarm& alarm)
{
    for (Alarm** link = &alarms; *link != nullptr; link = &(*link)->next)
    {
        if (*link == &alarm)
        {
            *link = std::exchange(alarm.next, nullptr);
            return;
        }
    }
}

void Hub::Set(Alarm& alarm, uint64_t at)
{
    alarm.at = at;
    Arm();
}

// An alarm that rings may add, remove and set alarms, so after each the search begins anew.
void Hub::RingAlarms(uint64_t now)
{
    for (Alarm* alarm = alarms; alarm != nullptr;)
    {
        if (alarm->at > now)
        {
            alarm = alarm->next;
            continue;
        }
        alarm->at = never;
        alarm->ring(alarm->data);
        alarm = alarms;
    }
}

void Hub::Ring()
{
    FollowLoop();
    SetTimers(0);
}

void Hub::RingIfQueued()
{
    uint64_t until = never;
    sd_bus* const connection = bus.load(std::memory_order_relaxed);
    const bool closed = alarms != nullptr && sd_bus_is_open(connection) == 0;
    if (descriptor >= 0 && (closed || (sd_bus_get_timeout(connection, &until) > 0 && until == 0)))
    {
        SetTimers(0);
    }
}

void Hub::LookForUnsent()
{
    uint64_t unsent = 0;
    if (sd_bus_get_n_queued_write(bus.load(std::memory_order_relaxed), &unsent) >= 0 && unsent != 0)
    {
        SetTimers(0);
    }
}

void RingForQueued(sd_bus* bus)
{
    if (Hub* hub = Hub::Find(bus))
    {
        hub->RingIfQueued();
        hub->RingIfUnsent();
    }
}

void FollowLoop(sd_bus* bus)
{
    if (Hub* hub = Hub::Find(bus))
    {
        hub->Ring();
    }
}

void Hub::SetTimers(uint64_t when)
{
    if (source != nullptr)
    {
        sd_event_source_set_time(source, when);
        sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
        armed = when;
    }
    if (descriptor >= 0)
    {
        // A time of all zeros would stop the timer.
        constexpr uint64_t latest = std::numeric_limits<time_t>::max();
        const itimerspec at = {
            .it_interval = {},
            .it_value = {.tv_sec = static_cast<time_t>(std::min(when / 1'000'000, latest)),
                         .tv_nsec =
                             static_cast<long>(when % 1'000'000) * 1'000 + (when == 0 ? 1 : 0)}};
        timerfd_settime(descriptor, TFD_TIMER_ABSTIME, &at, nullptr);
        armed = when;
    }
}

// Moves the source to the loop that the connection is attached to now.
void Hub::FollowLoop()
{
    sd_event* now = sd_bus_get_event(bus.load(std::memory_order_relaxed));
    if (now == loop)
    {
        return;
    }
    DropSource();
    // An accuracy of zero would stand for a quarter of a second.
    if (now == nullptr ||
        sd_event_add_time(now, &source, CLOCK_MONOTONIC, never, 1, OnTime, this) < 0)
    {
        return;
    }
    loop = now;
    sd_event_source_set_prepare(source, OnPrepare);
    // The loop owns it, so that it does not keep the loop.
    sd_event_source_set_destroy_callback(source, OnSourceGone);
    sd_event_source_set_floating(source, 1);
    sd_event_source_unref(source);
    armed = never;
}

void Hub::DropSource()
{
    if (source != nullptr)
    {
        sd_event_source* own = std::exchange(source, nullptr);
        sd_event_source_set_destroy_callback(own, nullptr);
        sd_event_source_set_enabled(own, SD_EVENT_OFF);
        sd_event_source_ref(own);
        sd_event_source_set_floating(own, 0);
        sd_event_source_unref(own);
    }
    loop = nullptr;
}

void Hub::OnSourceGone(void* self)
{
    auto& hub = *static_cast<Hub*>(self);
    hub.source = nullptr;
    hub.loop = nullptr;
    hub.armed = never;
}

int Hub::OnTime(sd_event_source* /*source*/, uint64_t /*when*/, void* self)
{
    static_cast<Hub*>(self)->Expire();
    return 0;
}

int Hub::OnPrepare(sd_event_source* own, void* self)
{
    auto& hub = *static_cast<Hub*>(self);
    if ((hub.first != nullptr || hub.alarms != nullptr) &&
        sd_bus_is_open(hub.bus.load(std::memory_order_relaxed)) == 0)
    {
        sd_event_source_set_time(own, 0);
    }
    return 0;
}

int Hub::Descriptor()
{
    if (descriptor < 0)
    {
        const int made = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        if (made < 0)
        {
            return -errno;
        }
        descriptor = made;
        armed = never;
        Arm();
    }
    return descriptor;
}

void Hub::CloseDescriptor()
{
    if (descriptor >= 0)
    {
        close(std::exchange(descriptor, -1));
    }
}

} // namespace bmcbus::detail
