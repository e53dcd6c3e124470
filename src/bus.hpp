#pragma once

// What every blocking call shares: the thread's default connection, the call and its reply. Text in
// arguments goes through AppendText or the writers of wire.hpp, which check it.

#include <bmcbus/client/refs.hpp>
#include <bmcbus/client/wire.hpp>

#include <systemd/sd-bus.h>

namespace bmcbus
{

// The calling thread's default system-bus connection, connected. Throws Error.
BusRef DefaultBus();

// A method call on `bus`. Throws Error(…, "sd_bus_message_new_method_call").
MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member);

// Sends `call` and waits for its reply with the connection's default timeout. Throws Error made
// from the error reply or the failure, with the prefix "sd_bus_call".
MessageRef Call(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
