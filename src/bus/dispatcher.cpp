// Lets any loop drive a connection by one descriptor: an epoll instance that watches the
// connection's socket and the timer of its calls, and is readable when either is.

#include <bmcbus/dispatcher.hpp>

#include "bus/bus.hpp"
#include "bus/call_hub.hpp"

#include <cerrno>
#include <sys/epoll.h>
#include <unistd.h>

namespace bmcbus
{
namespace
{

// Messages may come faster than their handlers end, and the loop has other work: microseconds after
// which it gets its turn.
constexpr uint64_t slice = 2'000;

int Add(int watch, int descriptor, uint32_t events)
{
    epoll_event event = {.events = events, .data = {.fd = descriptor}};
    return epoll_ctl(watch, EPOLL_CTL_ADD, descriptor, &event) < 0 ? -errno : 0;
}

} // namespace

Dispatcher::Dispatcher(sd_bus* bus) : connection(sd_bus_ref(bus))
{
    int result = 0;
    detail::Hub* hub = detail::Hub::Get(bus, result);
    Require(result, "sd_bus_add_match");
    timer = Require(hub->Descriptor(), "timerfd_create");
    const int socket = Require(sd_bus_get_fd(bus), "sd_bus_get_fd");
    watch = epoll_create1(EPOLL_CLOEXEC);
    if (watch < 0)
    {
        throw Error(errno, "epoll_create1");
    }
    result = Add(watch, socket, EPOLLIN);
    result = result < 0 ? result : Add(watch, timer, EPOLLIN);
    if (result < 0)
    {
        close(watch);
        Require(result, "epoll_ctl");
    }
    hub->Ring(); // for what has been read already
}

Dispatcher::Dispatcher(Bus& bus) : Dispatcher(Connection(bus)) {}

Dispatcher::~Dispatcher()
{
    close(watch);
}

// Asks to be told when there is room, while messages wait for it.
void Dispatcher::Watch()
{
    const int events = sd_bus_get_events(connection.get());
    const bool wanted = events > 0 && (static_cast<unsigned>(events) & EPOLLOUT) != 0;
    if (wanted != writing)
    {
        const int socket = sd_bus_get_fd(connection.get());
        epoll_event event = {.events = wanted ? EPOLLIN | EPOLLOUT : EPOLLIN,
                             .data = {.fd = socket}};
        epoll_ctl(watch, EPOLL_CTL_MOD, socket, &event);
        writing = wanted;
    }
}

int Dispatcher::Dispatch()
{
    const uint64_t until = detail::Now() + slice;
    int handled = 0;
    int result = 0;
    while ((result = sd_bus_process(connection.get(), nullptr)) > 0)
    {
        ++handled;
        if (detail::Now() >= until)
        {
            break;
        }
    }
    // In a forked child: the timer and the calls are the parent's.
    if (result == -ECHILD)
    {
        return result;
    }
    uint64_t rings = 0;
    static_cast<void>(read(timer, &rings, sizeof rings));
    // Inside one of the connection's handlers; the dispatch that is under way goes on after it.
    if (result == -EBUSY)
    {
        return 0;
    }
    if (detail::Hub* hub = detail::Hub::Find(connection.get()))
    {
        hub->Expire();
        if (result > 0)
        {
            hub->Ring();
        }
    }
    if (result < 0)
    {
        return result;
    }
    Watch();
    return handled;
}

void Dispatcher::Prepare()
{
    if (detail::Hub* hub = detail::Hub::Find(connection.get()))
    {
        hub->RingIfQueued();
    }
    Watch();
}

} // namespace bmcbus
