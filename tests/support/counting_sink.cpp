// A sink that counts lines by level and keeps none.

#include "counting_sink.hpp"

#include <dlog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace
{

constexpr int error = 2;

std::atomic<size_t> errors = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int
dlog_printf(int level, unsigned int /*source*/, const char* format, ...)
{
    errors += level <= error ? 1U : 0U;
    char line[4096];
    va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(line, sizeof(line), format, values);
    va_end(values);
    return length;
}

size_t test::ErrorLines()
{
    return errors;
}
