#pragma once

// What blocking calls leave in the queue of a connection that nobody dispatches.

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bmcbus
{

// After `call` was sent on `bus` and waited for: drops what nobody can want, and says once when too
// much waits. Gives how many messages waited.
uint64_t LookAtBacklog(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
