#include "sink.hpp"

#include <dlog.h>

#include <cstdarg>
#include <cstdio>

namespace
{

size_t errors = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int
dlog_printf(int level, unsigned int /*source*/, const char* format, ...)
{
    constexpr int error = 2;
    errors += level <= error ? 1 : 0;
    char line[4096];
    va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(line, sizeof(line), format, values);
    va_end(values);
    return length;
}

size_t fuzz::ErrorLines()
{
    return errors;
}
