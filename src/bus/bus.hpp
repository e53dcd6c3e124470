#pragma once

// What every blocking call shares: the thread's default connection, the call and its reply.
// Arguments go through the writers of wire.hpp, which refuse what may not travel.

#include <bmcbus/refs.hpp>

#include <systemd/sd-bus.h>

#include <string>

namespace bmcbus
{

// Throws Error(-result, step) for a negative result, else gives it back.
int Require(int result, const char* step);

// The calling thread's default system-bus connection, connected. Throws Error.
BusRef DefaultBus();

// A method call on `bus`. Throws Error(…, "sd_bus_message_new_method_call").
MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member);

// The same to where a caller said. A zero byte is refused like what else no name may hold; sd-bus
// would stop reading there and call another object.
MessageRef NewCall(sd_bus* bus, const std::string& service, const std::string& path,
                   const char* interface, const char* member);

// Sends `call` and waits for its reply with the connection's default timeout. Throws Error made
// from the error reply or the failure, with the prefix "sd_bus_call".
MessageRef Call(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
