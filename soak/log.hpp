#pragma once

// The library's log: faults on purpose fill it, so its lines are only counted.

#include <cstddef>

namespace soak
{

// Lines of level 2 and below so far.
size_t ErrorLines();

} // namespace soak
