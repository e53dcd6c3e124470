// The hubs: each thread finds its connections' hubs here. A hub keeps the calls by deadline, sets
// one timer for the first of them, and ends them all with the connection.

#include "bus/call_hub.hpp"

#include "bus/call_errors.hpp"
#include "bus/call_heap.hpp"

#include <bmcbus/dispatcher.hpp>
#include <bmcbus/refs.hpp>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>
#include <sys/timerfd.h>
#include <utility>

namespace bmcbus::detail
{
namespace
{

// Matches what only sd-bus itself makes, so nothing is asked of the daemon. The slot is there for
// its end, which is the connection's.
constexpr const char* localRule =
    "type='signal',sender='org.freedesktop.DBus.Local',path='/org/freedesktop/DBus/Local',"
    "interface='org.freedesktop.DBus.Local',member='Disconnected'";

int IgnoreSignal(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

thread_local constinit const sd_bus* freeing = nullptr;

} // namespace

// The hubs of one thread. One whose connection is gone is taken out by the next look.
struct HubList
{
    Hub* first = nullptr;

    ~HubList()
    {
        while (first != nullptr)
        {
            std::exchange(first, first->next)->Release();
        }
    }

    Hub* Find(const sd_bus* bus)
    {
        for (Hub** at = &first; *at != nullptr;)
        {
            Hub* hub = *at;
            sd_bus* of = hub->bus.load(std::memory_order_acquire);
            if (of == bus)
            {
                return hub;
            }
            if (of == nullptr)
            {
                *at = hub->next;
                hub->Release();
                continue;
            }
            at = &hub->next;
        }
        return nullptr;
    }
};

namespace
{
thread_local HubList hubs;
} // namespace

constinit std::atomic<int> Hub::dying = 0;

bool Hub::FreeingHere(const sd_bus* bus)
{
    return freeing != nullptr && (bus == nullptr || bus == freeing);
}

Hub* Hub::Find(sd_bus* bus)
{
    return hubs.Find(bus);
}

Hub* Hub::Get(sd_bus* bus, int& result)
{
    if (Hub* hub = hubs.Find(bus))
    {
        return hub;
    }
    auto* hub = new (std::nothrow) Hub(bus);
    sd_bus_slot* slot = nullptr;
    result = hub == nullptr ? -ENOMEM : sd_bus_add_match(bus, &slot, localRule, IgnoreSignal, hub);
    if (result < 0)
    {
        delete hub;
        return nullptr;
    }
    sd_bus_slot_set_destroy_callback(slot, OnConnectionGone);
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    hub->next = std::exchange(hubs.first, hub);
    return hub;
}

Hub::~Hub()
{
    CloseDescriptor();
}

void Hub::CloseDescriptor()
{
    if (descriptor >= 0)
    {
        close(std::exchange(descriptor, -1));
    }
}

void Hub::Release()
{
    if (holders.fetch_sub(1, std::memory_order_acq_rel) == 1)
    {
        delete this;
    }
}

void Hub::Add(PendingCall& call)
{
    call.hub = this;
    first = MergeHeaps(first, &call);
    Arm();
}

void Hub::Remove(PendingCall& call)
{
    first = WithoutCall(first, call);
    call.hub = nullptr;
}

// The timer.

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
        // One that is off is not asked before each wait, and would not see a closed connection.
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

// Whoever rings may come, go and be set anew meanwhile.
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

void RingForQueued(sd_bus* bus)
{
    if (Hub* hub = Hub::Find(bus))
    {
        hub->RingIfQueued();
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
        // All zeros would stop it.
        const itimerspec at = {.it_interval = {},
                               .it_value = {.tv_sec = static_cast<time_t>(when / 1'000'000),
                                            .tv_nsec = static_cast<long>(when % 1'000'000) * 1'000 +
                                                       (when == 0 ? 1 : 0)}};
        timerfd_settime(descriptor, TFD_TIMER_ABSTIME, &at, nullptr);
        armed = when;
    }
}

// Has the source on the loop that the connection is attached to now.
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

// Ends.

void Hub::Expire()
{
    const BusRef keep(sd_bus_ref(bus.load(std::memory_order_relaxed)));
    armed = never;
    if (source != nullptr)
    {
        sd_event_source_set_time(source, never);
    }
    if (sd_bus_is_open(keep.get()) == 0)
    {
        FailAll();
        while (alarms != nullptr)
        {
            Alarm& alarm = *alarms;
            Remove(alarm);
            alarm.ring(alarm.data);
        }
        return;
    }
    const uint64_t now = Now();
    while (first != nullptr && first->deadline <= now)
    {
        PendingCall& call = *first;
        call.Withdraw();
        call.Fail(TimeoutError());
    }
    RingAlarms(now);
    Arm();
}

void Hub::FailAll()
{
    while (first != nullptr)
    {
        PendingCall& call = *first;
        call.Withdraw();
        call.Fail(DisconnectedError());
    }
}

// The parent's calls: they must neither complete nor free what they hold.
void Hub::Forget()
{
    while (first != nullptr)
    {
        first->Withdraw();
    }
}

// The connection frees its slots one after the other, and must not be used any more, not even to
// take a slot back: no slot may remember its call before the first completion runs.
void Hub::Die()
{
    PendingCall* all = nullptr;
    while (first != nullptr)
    {
        PendingCall& call = *first;
        first = WithoutCall(first, call);
        sd_bus_slot_set_destroy_callback(std::exchange(call.slot, nullptr), nullptr);
        all = MergeHeaps(all, &call);
    }
    first = all;
    if (process != getpid())
    {
        Forget();
        return;
    }
    const sd_bus* outer = std::exchange(freeing, bus.load(std::memory_order_relaxed));
    dying.fetch_add(1, std::memory_order_relaxed);
    FailAll();
    dying.fetch_sub(1, std::memory_order_relaxed);
    freeing = outer;
}

void Hub::OnConnectionGone(void* self)
{
    auto& hub = *static_cast<Hub*>(self);
    hub.Die();
    hub.DropSource();
    hub.CloseDescriptor();
    hub.bus.store(nullptr, std::memory_order_release);
    hub.Release();
}

} // namespace bmcbus::detail
