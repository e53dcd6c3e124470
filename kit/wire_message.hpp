#pragma once

// A message of sd-bus as tests look at it.

#include <bmcbus/testing/monitor.hpp>

namespace bmcbus::testing
{

// Reads it from its start; throws std::system_error for contents that cannot be read.
WireMessage Decode(sd_bus_message* message);

} // namespace bmcbus::testing
