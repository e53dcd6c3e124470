// The hubs: each thread finds its connections' hubs here. A hub keeps the calls by deadline, ends
// those whose time has come, and all of them with the connection. Its timer is in call_timer.cpp.

#include "bus/call_hub.hpp"

#include "bus/call_errors.hpp"
#include "bus/call_heap.hpp"

#include <bmcbus/refs.hpp>

#include <cerrno>
#include <new>
#include <utility>

namespace bmcbus::detail
{
namespace
{

// A rule for a message that only sd-bus itself makes, so nothing is asked of the daemon. Only the
// match's slot is wanted: the connection frees it at its own end, and so tells the hub.
constexpr const char* localRule =
    "type='signal',sender='org.freedesktop.DBus.Local',path='/org/freedesktop/DBus/Local',"
    "interface='org.freedesktop.DBus.Local',member='Disconnected'";

int IgnoreSignal(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

thread_local constinit const sd_bus* freeing = nullptr;

} // namespace

// The hubs of one thread. Looking for one takes out those whose connections are gone.
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

// In a forked child: the calls are the parent's, and must neither complete nor free what they hold.
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
    if (Inherited())
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
