#pragma once

// What every blocking call shares: the thread's default connection, the call and the wait for its
// reply. Arguments go through the writers of wire.hpp, which refuse what may not travel.
//
// UNIX signals: every wait here keeps the calling thread's caught signals blocked and lets them
// through at its end, so none makes a call fail or be sent twice; see SignalShield. A wait of our
// own that goes on after EINTR would handle them at once, but nothing of sd-bus's interface reads
// messages without running their handlers, which has to be left to the thread's loop and is
// impossible inside a handler.
//
// Order: messages that arrive meanwhile stay queued as they came, for the loop.

#include "bus/deadline.hpp"

#include <bmcbus/refs.hpp>

#include <systemd/sd-bus.h>

#include <string>
#include <string_view>

namespace bmcbus
{

// Throws Error(-result, step).
[[noreturn]] void Fail(int result, const char* step);

// Does so for a negative result, else gives it back.
inline int Require(int result, const char* step)
{
    if (result < 0) [[unlikely]]
    {
        Fail(result, step);
    }
    return result;
}

// Waits until the connection is up; negative when it is dead or inherited, -ETIMEDOUT when the
// deadline passed first. libsystemd by itself knows no deadline before a connection is up.
int AwaitReady(sd_bus* bus, const Deadline& deadline = {});

// The calling thread's default system-bus connection, connected. Throws Error, with ETIMEDOUT when
// the deadline passed before it was up.
BusRef DefaultBus(const Deadline& deadline = {});

// A method call on `bus`. Throws Error(…, "sd_bus_message_new_method_call").
MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member);

// The same to where a caller said. A zero byte is refused like what else no name may hold; sd-bus
// would stop reading there and call another object.
MessageRef NewCall(sd_bus* bus, const std::string& service, const std::string& path,
                   const char* interface, const char* member);

// The same, without waiting for the connection; the thread's default one where `bus` is null. Each
// name ends in a zero byte.
MessageRef NewCallOn(sd_bus* bus, std::string_view service, std::string_view path,
                     const char* interface, const char* member);

// Sends `call` once and waits for its reply, for so many microseconds or, when that is zero, for
// the connection's default timeout. On a connection that is not up yet libsystemd does not count:
// see AwaitReady. Works inside handlers of the connection.
//
// Negative with `error` filled, for an error reply as well; release it with sd_bus_error_free.
// Never throws.
int Exchange(sd_bus* bus, sd_bus_message* call, sd_bus_error& error, MessageRef& reply,
             uint64_t timeout = 0);

// The same; throws Error made from the error reply or the failure, with the prefix "sd_bus_call".
MessageRef ReplyTo(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
