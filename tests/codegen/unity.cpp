// Two generated sources in one unit, as unity builds compile them.

#include "names.cpp"
#include "odd.cpp"
#include "part.cpp"
#include "types.cpp"
