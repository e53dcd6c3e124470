#pragma once

// The descriptions of all interfaces that the simulator serves; they are part of the program.

#include <bmcbus/testing/description.hpp>

#include <string>

namespace simulator
{

// Throws std::out_of_range for an interface that is not simulated.
const bmcbus::testing::InterfaceDescription& Describe(const std::string& interface);

} // namespace simulator
