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

int Require(int result, const char* step)
{
    if (result < 0)
    {
        throw Error(-result, step);
    }
    return result;
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

MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member)
{
    sd_bus_message* raw = nullptr;
    Require(sd_bus_message_new_method_call(bus, &raw, service, path, interface, member),
            "sd_bus_message_new_method_call");
    MessageRef call(raw);
    uint64_t names = 0;
    for (const char* const name : {service, path, interface, member})
    {
        names += name == nullptr ? 0 : std::strlen(name);
    }
    StartMessage(raw, names);
    if (!Fits(names))
    {
        throw Error(EMSGSIZE, "sd_bus_message_new_method_call");
    }
    return call;
}

MessageRef NewCall(sd_bus* bus, const std::string& service, const std::string& path,
                   const char* interface, const char* member)
{
    const bool whole =
        service.find('\0') == std::string::npos && path.find('\0') == std::string::npos;
    if (!whole)
    {
        throw Error(EINVAL, "sd_bus_message_new_method_call");
    }
    return NewCall(bus, service.c_str(), path.c_str(), interface, member);
}

int Exchange(sd_bus* bus, sd_bus_message* call, sd_bus_error& error, MessageRef& reply,
             const Deadline& deadline)
{
    uint64_t timeout = 0; // the connection's default
    if (deadline.IsSet())
    {
        const int ready = AwaitReady(bus, deadline);
        timeout = deadline.Left();
        if (ready < 0 || timeout == 0)
        {
            return sd_bus_error_set_errno(&error, ready < 0 ? ready : -ETIMEDOUT);
        }
    }
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
    LookAtBacklog(bus, call);
    detail::RingForQueued(bus);
    return result;
}

MessageRef ReplyTo(sd_bus* bus, sd_bus_message* call, const Deadline& deadline)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    MessageRef reply;
    if (Exchange(bus, call, error, reply, deadline) < 0)
    {
        throw Error(&error, "sd_bus_call");
    }
    sd_bus_error_free(&error);
    return reply;
}

} // namespace bmcbus
