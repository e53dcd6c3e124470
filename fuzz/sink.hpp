#pragma once

// The program's own log sink: it formats every line, so that every value of a line is looked at,
// and counts the errors.

#include <cstddef>

namespace fuzz
{

// Lines of level 2 and below so far.
size_t ErrorLines();

} // namespace fuzz
