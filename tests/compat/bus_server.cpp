#include "bus_server.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

namespace test
{
namespace
{

void Need(bool good, const char* what)
{
    if (!good)
    {
        throw std::runtime_error(what);
    }
}

// A name that the kernel chooses, so nothing of it lies in any folder; gives it as an address.
std::string Listen(int& fd)
{
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    Need(bind(fd, raw, sizeof(sa_family_t)) == 0 && listen(fd, 8) == 0 &&
             getsockname(fd, raw, &size) == 0,
         "cannot listen");
    const size_t before = offsetof(sockaddr_un, sun_path) + 1;
    return "unix:abstract=" + std::string(address.sun_path + 1, size - before);
}

int EchoBody(sd_bus_message* call)
{
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    sd_bus_message_copy(reply, call, 1);
    const int result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

int EmitChanged(sd_bus_message* call)
{
    const char* text = "";
    sd_bus_message_read(call, "s", &text);
    sd_bus_emit_signal(sd_bus_message_get_bus(call), "/path", "com.example.Interface", "Changed",
                       "s", text);
    return sd_bus_reply_method_return(call, "");
}

int AddMatch(sd_bus_message* call)
{
    const char* rule = "";
    sd_bus_message_read(call, "s", &rule);
    return std::strstr(rule, "refused") != nullptr
               ? sd_bus_reply_method_errorf(call, SD_BUS_ERROR_INVALID_ARGS, "refused")
               : sd_bus_reply_method_return(call, "");
}

} // namespace

BusServer::BusServer()
{
    const std::string address = Listen(listener);
    stop = eventfd(0, EFD_CLOEXEC);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    thread = std::thread([this] { Run(); });
}

BusServer::~BusServer()
{
    eventfd_write(stop, 1);
    thread.join();
    close(stop);
    close(listener);
}

void BusServer::Run()
{
    sd_event_new(&loop);
    sd_event_add_io(loop, nullptr, listener, EPOLLIN, &BusServer::Accept, this);
    sd_event_add_io(loop, nullptr, stop, EPOLLIN, &BusServer::Stop, this);
    sd_event_loop(loop);
    for (sd_bus* connection : connections)
    {
        sd_bus_detach_event(connection);
        sd_bus_flush_close_unref(connection);
    }
    sd_event_unref(loop);
}

int BusServer::Accept(sd_event_source*, int fd, uint32_t, void* self)
{
    auto* server = static_cast<BusServer*>(self);
    const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0)
    {
        return 0;
    }
    sd_bus* connection = nullptr;
    sd_id128_t id{};
    sd_bus_new(&connection);
    sd_bus_set_fd(connection, client, client);
    sd_bus_set_server(connection, 1, id);
    sd_bus_set_trusted(connection, 1);
    sd_bus_start(connection);
    sd_bus_add_filter(connection, nullptr, &BusServer::Handle, self);
    sd_bus_attach_event(connection, server->loop, 0);
    server->connections.push_back(connection);
    return 0;
}

int BusServer::Stop(sd_event_source*, int, uint32_t, void* self)
{
    return sd_event_exit(static_cast<BusServer*>(self)->loop, 0);
}

int BusServer::Handle(sd_bus_message* call, void*, sd_bus_error*)
{
    const char* member = sd_bus_message_get_member(call);
    const std::string name = member == nullptr ? "" : member;
    if (name == "Hello")
    {
        return sd_bus_reply_method_return(call, "s", ":1.1");
    }
    if (name == "AddMatch")
    {
        return AddMatch(call);
    }
    if (name == "Echo")
    {
        return EchoBody(call);
    }
    if (name == "Emit")
    {
        return EmitChanged(call);
    }
    if (name == "Fail")
    {
        return sd_bus_reply_method_errorf(call, "com.example.Error.Foo", "text");
    }
    if (name == "Drop")
    {
        sd_bus_close(sd_bus_message_get_bus(call));
    }
    return 1; // RemoveMatch is sent without asking for an answer
}

} // namespace test
