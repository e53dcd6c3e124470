#pragma once

// What every blocking and queued call shares: the thread's default connection, owned references to
// sd-bus objects, and arguments that are checked before they are put into a message.

#include <bmcbus/sdbusplus.hpp>

#include <systemd/sd-bus.h>

#include <memory>
#include <string_view>

namespace bmcbus
{

struct Unref
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
};

using BusRef = std::unique_ptr<sd_bus, Unref>;
using MessageRef = std::unique_ptr<sd_bus_message, Unref>;
using Slot = std::unique_ptr<sd_bus_slot, Unref>;

// Throws Error(-result, call) for a negative result, else gives it back.
int Check(int result, const char* call);

// The calling thread's default system-bus connection, connected. Throws Error.
BusRef DefaultBus();

// A method call on `bus`. Throws Error(…, "sd_bus_message_new_method_call").
MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member);

// True for text that may travel as a D-Bus string: valid UTF-8 without zero bytes. Anything else
// would make the daemon drop the whole connection, so it is never put into a message.
bool IsBusText(std::string_view text);

// Appends one string. 0 or more, or a negative code: -EINVAL for text that may not travel.
int AppendText(sd_bus_message* message, const std::string& text);

// Sends `call` and waits for its reply with the connection's default timeout. Throws Error made
// from the error reply or the failure, with the prefix "sd_bus_call".
MessageRef Call(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
