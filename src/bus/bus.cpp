#include "bus/bus.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>

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

BusRef DefaultBus()
{
    sd_bus* raw = nullptr;
    Require(sd_bus_default_system(&raw), "sd_bus_default_system");
    BusRef bus(raw);
    // Waits until a new connection is up, and tells a dead or inherited one from a working one.
    const char* name = nullptr;
    Require(sd_bus_get_unique_name(raw, &name), "sd_bus_get_unique_name");
    return bus;
}

MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member)
{
    sd_bus_message* raw = nullptr;
    Require(sd_bus_message_new_method_call(bus, &raw, service, path, interface, member),
            "sd_bus_message_new_method_call");
    return MessageRef(raw);
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

MessageRef Call(sd_bus* bus, sd_bus_message* call)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call(bus, call, 0, &error, &reply) < 0)
    {
        throw Error(&error, "sd_bus_call");
    }
    sd_bus_error_free(&error);
    return MessageRef(reply);
}

} // namespace bmcbus
