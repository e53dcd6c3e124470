#pragma once

// What all pending calls of one connection share: their order by deadline, the one timer, and the
// moment when the connection goes.
//
// A call's slot is floating: the connection owns it, so that pending calls keep no connection
// alive. A connection that is freed frees its slots, which is how a hub learns of it; a connection
// that was only closed tells nobody, so the timer looks.

#include "bus/deadline.hpp"

#include <bmcbus/call.hpp>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <unistd.h>

namespace bmcbus::detail
{

inline constexpr uint64_t never = std::numeric_limits<uint64_t>::max();

// When a call that is sent on `bus` now must have ended.
uint64_t DeadlineOf(sd_bus* bus, const CallOptions& options, uint64_t now);

// Something beside calls that waits for a moment of the connection, and learns when it was closed.
// Belongs to whoever made it, on the connection's thread; takes itself out before it ends.
struct Alarm
{
    void (*ring)(void* data); // the moment has come, or the connection is closed
    void* data;
    uint64_t at = never;
    Alarm* next = nullptr; // in its hub's list
};

struct Hub
{
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // The calling thread's hub for `bus`, made on first use. Null with a negative `result` when
    // that fails; the connection is closed then, or inherited.
    static Hub* Get(sd_bus* bus, int& result);

    // The same, or null when there is none yet.
    static Hub* Find(sd_bus* bus);

    // Whether `bus` is being freed in this thread. For null: whether any is, as that may be the
    // default one, which must not be looked up then.
    static bool Freeing(const sd_bus* bus)
    {
        return dying.load(std::memory_order_relaxed) != 0 && FreeingHere(bus);
    }

    void Add(PendingCall& call);
    void Remove(PendingCall& call);

    void Add(Alarm& alarm);
    void Remove(Alarm& alarm);
    void Set(Alarm& alarm, uint64_t at);

    // Whether a loop looks at the hub's timer. Without one only what sd-bus itself waits for
    // counts.
    bool Watched() const { return source != nullptr || descriptor >= 0; }

    // Ends what is overdue; everything, when the connection is closed. May free the hub.
    void Expire();

    // Has the timer ring at once: there is, or may be, something to dispatch.
    void Ring();
    void RingIfQueued();

    // The same where a descriptor is watched and something did not fit into the socket: only a
    // dispatch has the loop wait for room.
    void RingIfUnsent()
    {
        if (descriptor >= 0)
        {
            LookForUnsent();
        }
    }

    // Whether this is a child of the process that made it.
    bool Inherited() const { return process != getpid(); }

    // A descriptor that is readable when the timer has rung; negative errno. Belongs to the hub.
    int Descriptor();

    // Of a call whose slot the dying connection frees.
    void Die();

  private:
    friend struct HubList;

    // How many threads are freeing a connection. Few ever do, and every call asks.
    static constinit std::atomic<int> dying;

    explicit Hub(sd_bus* connection) : bus(connection) {}
    static bool FreeingHere(const sd_bus* bus);
    ~Hub();

    static void OnConnectionGone(void* hub);
    static void OnSourceGone(void* hub);
    static int OnTime(sd_event_source* source, uint64_t when, void* hub);
    static int OnPrepare(sd_event_source* source, void* hub);

    void Arm();
    void LookForUnsent();
    uint64_t Next() const;
    void RingAlarms(uint64_t now);
    void SetTimers(uint64_t when);
    void FollowLoop();
    void DropSource();
    void CloseDescriptor();
    void FailAll();
    void Forget();
    void Release();

    std::atomic<sd_bus*> bus;     // null once it is freed
    PendingCall* first = nullptr; // the heap's root
    Alarm* alarms = nullptr;
    Hub* next = nullptr;      // in its thread's list
    sd_event* loop = nullptr; // the timer's, borrowed
    sd_event_source* source = nullptr;
    int descriptor = -1;
    uint64_t armed = never;
    const pid_t process = getpid();
    std::atomic<int> holders = 2; // its thread's list and the connection
};

// After a blocking exchange on `bus`: the connection's descriptor tells nothing of what was read
// meanwhile, the hub's does.
void RingForQueued(sd_bus* bus);

} // namespace bmcbus::detail
