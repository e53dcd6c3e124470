// What every blocking call stands on: the connection, the message, the wait for the reply.

#include "bus/bus.hpp"

#include "bus/backlog.hpp"
#include "bus/call_hub.hpp"
#include "bus/message_size.hpp"
#include "bus/signal_shield.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>
#include <cstring>

namespace bmcbus
{

void Fail(int result, const char* step)
{
    throw Error(-result, step);
}

int AwaitReady(sd_bus* bus, const Deadline& deadline)
{
    const char* name = nullptr;
    if (sd_bus_is_ready(bus) > 0)
    {
        return sd_bus_get_unique_name(bus, &name);
    }
    const SignalShield shield;
    // Before a connection is up there is nothing on it that could call a handler.
    while (deadline.IsSet() && sd_bus_is_ready(bus) == 0 && sd_bus_is_open(bus) > 0)
    {
        int result = sd_bus_process(bus, nullptr);
        const uint64_t left = deadline.Left();
        if (result == 0 && left != 0)
        {
            result = sd_bus_wait(bus, left);
        }
        if (result < 0 && result != -EINTR)
        {
            return result;
        }
        if (left == 0)
        {
            return -ETIMEDOUT;
        }
    }
    // Waits as well, and names what is wrong with a dead or inherited connection.
    return sd_bus_get_unique_name(bus, &name);
}

BusRef DefaultBus(const Deadline& deadline)
{
    sd_bus* raw = nullptr;
    Require(sd_bus_default_system(&raw), "sd_bus_default_system");
    BusRef bus(raw);
    Require(AwaitReady(raw, deadline), "sd_bus_get_unique_name");
    return bus;
}

namespace
{

inline MessageRef MakeCall(sd_bus* bus, const char* service, std::string_view path,
                           const char* interface, const char* member)
{
    sd_bus_message* raw = nullptr;
    Require(sd_bus_message_new_method_call(bus, &raw, service, path.data(), interface, member),
            "sd_bus_message_new_method_call");
    MessageRef call(raw);
    Require(StartMessage(raw, path.size()), "sd_bus_message_new_method_call");
    return call;
}

inline void RequireWhole(std::string_view service, std::string_view path)
{
    const bool whole =
        std::strlen(service.data()) == service.size() && std::strlen(path.data()) == path.size();
    Require(whole ? 0 : -EINVAL, "sd_bus_message_new_method_call");
}

} // namespace

MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member)
{
    return MakeCall(bus, service, path, interface, member);
}

MessageRef NewCall(sd_bus* bus, const std::string& service, const std::string& path,
                   const char* interface, const char* member)
{
    RequireWhole(service, path);
    return MakeCall(bus, service.c_str(), path, interface, member);
}

MessageRef NewCallOn(sd_bus* bus, std::string_view service, std::string_view path,
                     const char* interface, const char* member)
{
    // Under a connection that is being freed nothing may be looked up, least of all itself.
    if (detail::Hub::Freeing(bus))
    {
        throw Error(ENOTCONN, "sd_bus_default_system");
    }
    BusRef held;
    if (bus == nullptr)
    {
        Require(sd_bus_default_system(&bus), "sd_bus_default_system");
        held.reset(bus);
    }
    RequireWhole(service, path);
    return MakeCall(bus, service.data(), path, interface, member);
}

int Exchange(sd_bus* bus, sd_bus_message* call, sd_bus_error& error, MessageRef& reply,
             uint64_t timeout)
{
    sd_bus_message* raw = nullptr;
    const int result = [&]
    {
        const SignalShield shield;
        return sd_bus_call(bus, call, timeout, &error, &raw);
    }();
    if (result >= 0)
    {
        reply.reset(raw);
    }
    if (LookAtBacklog(bus, call) != 0 || result < 0)
    {
        detail::RingForQueued(bus);
    }
    return result;
}

MessageRef ReplyTo(sd_bus* bus, sd_bus_message* call)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    MessageRef reply;
    if (Exchange(bus, call, error, reply) < 0)
    {
        throw Error(&error, "sd_bus_call");
    }
    sd_bus_error_free(&error);
    return reply;
}

} // namespace bmcbus
