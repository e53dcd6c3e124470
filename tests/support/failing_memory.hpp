#pragma once

// Memory that runs out. Its source replaces operator new, for the whole program.

#include <cstddef>

namespace test
{

// The number of this thread's allocation that fails, counted from one; 0 for none.
extern thread_local size_t failing;

// How many blocks this thread has, less those that it has freed for others.
extern thread_local size_t live;

} // namespace test
