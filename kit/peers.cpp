// Both ends of a socket pair in one thread: one is told to be a server, then messages are made and
// read without any daemon.

#include <bmcbus/testing/peers.hpp>
#include <bmcbus/testing/wait.hpp>

#include "check.hpp"

#include <sys/socket.h>
#include <unistd.h>

namespace bmcbus::testing
{
namespace
{

// Takes the descriptor over.
Owned<sd_bus> Unstarted(int fd)
{
    sd_bus* raw = nullptr;
    const int made = sd_bus_new(&raw);
    Owned<sd_bus> bus(raw);
    const int set = made < 0 ? made : sd_bus_set_fd(raw, fd, fd);
    if (set < 0)
    {
        close(fd);
    }
    Check(set, "sd_bus_set_fd");
    return bus;
}

} // namespace

Peers::Peers()
{
    int fds[2] = {-1, -1};
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) < 0 ? -errno : 0,
          "socketpair");
    Owned<sd_bus> second;
    Owned<sd_bus> first;
    try
    {
        first = Unstarted(fds[0]);
    }
    catch (...)
    {
        close(fds[1]);
        throw;
    }
    second = Unstarted(fds[1]);
    sd_id128_t id;
    Check(sd_id128_randomize(&id), "sd_id128_randomize");
    Check(sd_bus_set_server(second.get(), 1, id), "sd_bus_set_server");
    Check(sd_bus_start(first.get()), "sd_bus_start");
    Check(sd_bus_start(second.get()), "sd_bus_start");
    client = first.release();
    server = second.release();
    Pump([this] { return sd_bus_is_ready(client) > 0 && sd_bus_is_ready(server) > 0; });
}

Peers::~Peers()
{
    sd_bus_close_unref(client);
    sd_bus_close_unref(server);
}

bool Peers::Pump(const std::function<bool()>& done) const
{
    bool moved = true;
    while (!done())
    {
        if (!moved)
        {
            return false;
        }
        const int one = sd_bus_process(client, nullptr);
        const int other = sd_bus_process(server, nullptr);
        moved = one > 0 || other > 0;
    }
    return true;
}

MessagePtr Peers::Message(const std::vector<Value>& body, const std::string& interface,
                          const std::string& member, const std::string& path) const
{
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_signal(client, &raw, path.c_str(), interface.c_str(), member.c_str()),
          "sd_bus_message_new_signal");
    MessagePtr message(raw, sd_bus_message_unref);
    for (const Value& value : body)
    {
        value.Append(raw);
    }
    Check(sd_bus_message_seal(raw, 1, 0), "sd_bus_message_seal");
    Check(sd_bus_message_rewind(raw, 1), "sd_bus_message_rewind");
    return message;
}

} // namespace bmcbus::testing
