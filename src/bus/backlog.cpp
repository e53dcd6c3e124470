// Late replies and signals sent to a connection pile up in it until it is processed, which runs
// handlers. A blocking call may do that only where there can be none: as long as the cookies of our
// own blocking calls follow each other without a gap from the connection's first message on, nobody
// has sent anything else on it, so there is neither a match nor a call with a reply handler.

#include "bus/backlog.hpp"

#include "bus/call_hub.hpp"
#include "log.hpp"

#include <bmcbus/connection.hpp>
#include <bmcbus/refs.hpp>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace bmcbus
{
namespace
{

constexpr uint64_t hello = 1;     // the cookie of a connection's first message
constexpr uint64_t many = 10'000; // messages in the queue

// The connection that a thread made its last call on.
struct Seen
{
    const sd_bus* bus = nullptr; // only to be compared: another may have its place by now
    char name[32] = "";          // a bus gives none twice
    uint64_t cookie = 0;
    uint64_t kept = 0; // messages that were looked at and left
    bool ours = false; // whether nothing but our calls was sent
    bool told = false;
};

thread_local constinit Seen seen;

bool IsSeen(sd_bus* bus)
{
    const char* name = nullptr;
    return sd_bus_get_unique_name(bus, &name) >= 0 && std::strcmp(seen.name, name) == 0;
}

// Another connection, or one that somebody else sent something on.
void Look(sd_bus* bus, uint64_t cookie)
{
    if (bus == seen.bus && IsSeen(bus))
    {
        seen.ours = false;
        return;
    }
    seen = {};
    seen.bus = bus;
    const char* name = nullptr;
    if (sd_bus_get_unique_name(bus, &name) >= 0)
    {
        seen.ours = cookie == hello + 1 && std::strlen(name) < sizeof(seen.name);
        static_cast<void>(std::snprintf(seen.name, sizeof(seen.name), "%s", name));
    }
}

// Comes before every other filter of the connection. Calls are left for objects that may be there.
int Sift(sd_bus_message* message, void* left, sd_bus_error* /*error*/) noexcept
{
    --*static_cast<uint64_t*>(left);
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) > 0 &&
        sd_bus_enqueue_for_read(sd_bus_message_get_bus(message), message) >= 0)
    {
        ++seen.kept;
    }
    return 1;
}

// Takes each queued message out once.
void Drop(sd_bus* bus, uint64_t queued)
{
    sd_bus_slot* raw = nullptr;
    uint64_t left = queued;
    if (sd_bus_add_filter(bus, &raw, Sift, &left) < 0)
    {
        return;
    }
    const Slot filter(raw);
    seen.kept = 0;
    int result = 1;
    while (left > 0 && result > 0)
    {
        result = sd_bus_process(bus, nullptr);
    }
    seen.ours = result >= 0; // inside a handler after all, or the end of the connection
}

// So many wait.
void Sort(sd_bus* bus, uint64_t queued)
{
    if (seen.ours && queued > seen.kept && sd_bus_get_event(bus) == nullptr)
    {
        // A new connection in the place of the old one can go on with its cookies by chance.
        seen.ours = IsSeen(bus);
        if (seen.ours)
        {
            Drop(bus, queued);
        }
    }
    else if (queued > many && !seen.told)
    {
        seen.told = true;
        BMCBUS_LOG(misuse,
                   "%" PRIu64 " messages wait on this thread's connection, process it: "
                   "bmcbus::ProcessQueue()",
                   queued);
    }
}

} // namespace

uint64_t LookAtBacklog(sd_bus* bus, sd_bus_message* call)
{
    uint64_t cookie = 0;
    uint64_t queued = 0;
    if (sd_bus_message_get_cookie(call, &cookie) < 0 || sd_bus_get_n_queued_read(bus, &queued) < 0)
    {
        return 0;
    }
    if (bus != seen.bus || cookie != seen.cookie + 1)
    {
        Look(bus, cookie);
    }
    seen.cookie = cookie;
    if (queued != 0)
    {
        Sort(bus, queued);
    }
    return queued;
}

int ProcessQueue(sd_bus* bus)
{
    BusRef own;
    if (bus == nullptr)
    {
        const int result = sd_bus_default_system(&bus);
        own.reset(bus);
        if (result != 0) // made just now
        {
            return result < 0 ? result : 0;
        }
    }
    int handled = 0;
    int result = 0;
    while ((result = sd_bus_process(bus, nullptr)) > 0)
    {
        ++handled;
    }
    detail::RingForQueued(bus);
    return result < 0 ? result : handled;
}

} // namespace bmcbus
