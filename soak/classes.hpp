#pragma once

// All generated classes that the soak makes objects of.

#include "objects.hpp"

namespace soak
{

// All classes that keep values, without their places.
std::vector<Kind> Classes();

// How often objects called back so far.
size_t& Callbacks();

} // namespace soak
