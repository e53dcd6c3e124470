#pragma once

// What every part of the kit needs around sd-bus: failures as exceptions, and owned references.

#include <bmcbus/testing/text.hpp>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace bmcbus::testing
{

// Throws std::system_error for a negative result, else gives it back.
inline int Check(int result, const std::string& what)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), what);
    }
    return result;
}

inline int Check(int result, const char* what)
{
    return result < 0 ? Check(result, std::string(what)) : result;
}

// Throws std::invalid_argument for an error reply for which the daemon would close the connection.
inline void CheckError(const std::string& name, const std::string& text)
{
    // Error names follow the rules for names of interfaces.
    if (!MayTravel(name) || sd_bus_interface_name_is_valid(name.c_str()) <= 0)
    {
        throw std::invalid_argument("no error name: \"" + Printable(name) + "\"");
    }
    if (!MayTravel(text))
    {
        throw std::invalid_argument("no text for an error: \"" + Printable(text) + "\"");
    }
}

struct Unreference
{
    void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
    void operator()(sd_event* event) const { sd_event_unref(event); }
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};

template <class T>
using Owned = std::unique_ptr<T, Unreference>;

} // namespace bmcbus::testing
