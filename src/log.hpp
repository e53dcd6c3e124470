#pragma once

// The one way to write a diagnostic line. A line is a call of the platform's sink with the location
// first; nothing is formatted or copied here, so a line that the sink drops costs the call alone.

#include <dlog.h>

namespace bmcbus::log
{

enum Level : int
{
    failure = 1, // serious: something the caller counted on did not happen
    error = 2,   // an operation failed
    misuse = 4,  // the one-way channel was used out of order
    info = 5,    // what the hand-written helpers do
    trace = 9    // everything
};

inline constexpr unsigned int generatedSource = 127;
inline constexpr unsigned int librarySource = 300;

consteval const char* BaseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p)
    {
        if (*p == '/')
        {
            base = p + 1;
        }
    }
    return base;
}

} // namespace bmcbus::log

// Writes one line of hand-written code: BMCBUS_LOG(info, "agentID=%u", id).
// `text` is a literal; the location conversions are put in front of it.
#define BMCBUS_LOG(level, text, ...)                                                               \
    BMCBUS_LOG_AS(level, bmcbus::log::librarySource, __func__, text __VA_OPT__(, ) __VA_ARGS__)

// The same with a source id and a function name of the caller's choice.
#define BMCBUS_LOG_AS(level, source, function, text, ...)                                          \
    BMCBUS_LOG_IN(bmcbus::log::BaseName(__FILE__), level, source, function,                        \
                  text __VA_OPT__(, ) __VA_ARGS__)

// The same where the line belongs to another file than the one that writes it.
#define BMCBUS_LOG_IN(file, level, source, function, text, ...)                                    \
    static_cast<void>(dlog_printf(bmcbus::log::level, (source), "%s.%d.%s: " text, (file),         \
                                  __LINE__, (function)__VA_OPT__(, ) __VA_ARGS__))

// A caught exception, in the form that leads with the word.
#define BMCBUS_LOG_EXCEPTION(source, tail, what)                                                   \
    BMCBUS_LOG_EXCEPTION_IN(bmcbus::log::BaseName(__FILE__), source, tail, what)
#define BMCBUS_LOG_EXCEPTION_IN(file, source, tail, what)                                          \
    static_cast<void>(dlog_printf(bmcbus::log::error, (source), "EXCEPTION %s.%d.%s: %s" tail,     \
                                  (file), __LINE__, __func__, (what)))
