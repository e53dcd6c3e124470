#pragma once

#include "objects.hpp"

namespace soak
{

// All classes that keep values, without their places.
std::vector<Kind> Classes();

// How often objects called back so far.
size_t& Callbacks();

} // namespace soak
