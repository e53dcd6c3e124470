#pragma once

// Whether two values are the same, told by a number of 64 bits made from the wire. So no type needs
// code to compare itself, which programs without live objects would carry, too.

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bmcbus::live
{

// Of everything from the read position to the end of the container. The order of the entries of a
// dictionary does not matter. Throws Error.
uint64_t Fingerprint(sd_bus_message* message);

} // namespace bmcbus::live
