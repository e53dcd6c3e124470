#pragma once

// A log sink for programs that cause failures without end: it formats every line, so that every
// value of a line is looked at, and counts the errors.

#include <cstddef>

namespace test
{

// Lines of level 2 and below so far. Any thread may ask.
size_t ErrorLines();

} // namespace test
