#pragma once

// What blocking calls leave in the queue of a connection that nobody dispatches.

#include <systemd/sd-bus.h>

namespace bmcbus
{

// After `call` was sent on `bus` and waited for: drops what nobody can want, and says once when too
// much waits.
void LookAtBacklog(sd_bus* bus, sd_bus_message* call);

} // namespace bmcbus
