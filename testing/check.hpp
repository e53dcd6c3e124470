#pragma once

// What every part of the kit needs around sd-bus: failures as exceptions, and owned references.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
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

struct Unreference
{
    void operator()(sd_bus* bus) const
    {
        sd_bus_unref(bus);
    }
    void operator()(sd_bus_message* message) const
    {
        sd_bus_message_unref(message);
    }
    void operator()(sd_bus_slot* slot) const
    {
        sd_bus_slot_unref(slot);
    }
    void operator()(sd_event* event) const
    {
        sd_event_unref(event);
    }
    void operator()(sd_event_source* source) const
    {
        sd_event_source_disable_unref(source);
    }
};

template <class T>
using Owned = std::unique_ptr<T, Unreference>;

} // namespace bmcbus::testing
