#pragma once

// Whether two values are the same, told by a number of 64 bits made from the wire. So no type needs
// code to compare itself, which programs without live objects would carry, too.

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bmcbus::live
{

// Of the value of this type that the variant holds in which the message stands. The order of the
// entries of a dictionary does not matter. Throws Error.
uint64_t Fingerprint(sd_bus_message* message, const char* type);

} // namespace bmcbus::live
