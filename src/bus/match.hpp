#pragma once

// Subscribing to signals on a connection.

#include <bmcbus/refs.hpp>

#include <string>

namespace bmcbus::client
{

// The rule for a signal at `path`; the interface is left out when null. Nothing is escaped.
std::string SignalRule(const char* member, const std::string& path,
                       const char* interface = nullptr);

// Subscribes on `bus` and waits for the daemon's answer. Negative when it refuses the rule, or when
// the rule holds text that may not travel or is too large. Not disturbed by UNIX signals, as the
// calls of bus.hpp.
int AddMatch(sd_bus* bus, const std::string& rule, sd_bus_message_handler_t handler,
             void* user_data, Slot& slot);

} // namespace bmcbus::client
