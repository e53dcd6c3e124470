#pragma once

// Connections of the kit's own, apart from any thread's default connection.

#include "check.hpp"

#include <cstdlib>
#include <string>

namespace bmcbus::testing
{

inline std::string SystemBusAddress()
{
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address == nullptr ? "unix:path=/run/dbus/system_bus_socket" : address;
}

// A connection to a bus daemon, named when this returns.
inline Owned<sd_bus> Connect(const std::string& address, bool monitor = false)
{
    sd_bus* raw = nullptr;
    Check(sd_bus_new(&raw), "sd_bus_new");
    Owned<sd_bus> bus(raw);
    Check(sd_bus_set_address(raw, address.c_str()), "sd_bus_set_address " + address);
    Check(sd_bus_set_bus_client(raw, 1), "sd_bus_set_bus_client");
    Check(sd_bus_negotiate_fds(raw, 1), "sd_bus_negotiate_fds");
    Check(sd_bus_set_monitor(raw, monitor ? 1 : 0), "sd_bus_set_monitor");
    Check(sd_bus_start(raw), "connect to " + address);
    const char* unique = nullptr;
    Check(sd_bus_get_unique_name(raw, &unique), "connect to " + address);
    return bus;
}

} // namespace bmcbus::testing
