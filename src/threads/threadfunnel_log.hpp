#pragma once

// Lines of the funnel. Callers filter by the file that a line names: it is the funnel's, whichever
// of its sources writes it, unless the source says otherwise by FUNNEL_LOG_FILE.

#include "log.hpp"
#include "threads/threadfunnel_state.hpp"

#ifndef FUNNEL_LOG_FILE
#define FUNNEL_LOG_FILE "threadfunnel.cpp"
#endif

#define FUNNEL_LOG(level, text, ...) FUNNEL_LOG_AS(level, __func__, text __VA_OPT__(, ) __VA_ARGS__)
#define FUNNEL_LOG_AS(level, function, text, ...)                                                  \
    BMCBUS_LOG_IN(FUNNEL_LOG_FILE, level, bmcbus::log::librarySource, function,                    \
                  text __VA_OPT__(, ) __VA_ARGS__)

// A line that goes to the alternate source as well.
#define FUNNEL_LOG_TWICE(level, text) FUNNEL_LOG_TWICE_AS(level, __func__, text)
#define FUNNEL_LOG_TWICE_AS(level, function, text, ...)                                            \
    do                                                                                             \
    {                                                                                              \
        FUNNEL_LOG_AS(level, function, text __VA_OPT__(, ) __VA_ARGS__);                           \
        if (const unsigned int alternate = bmcbus::funnel::AlternateLogSource(); alternate != 0)   \
        {                                                                                          \
            BMCBUS_LOG_IN(FUNNEL_LOG_FILE, level, alternate, function,                             \
                          text __VA_OPT__(, ) __VA_ARGS__);                                        \
        }                                                                                          \
    } while (false)

#define FUNNEL_LOG_EXCEPTION(what)                                                                 \
    do                                                                                             \
    {                                                                                              \
        BMCBUS_LOG_EXCEPTION_IN(FUNNEL_LOG_FILE, bmcbus::log::librarySource, "\n", what);          \
        if (const unsigned int alternate = bmcbus::funnel::AlternateLogSource(); alternate != 0)   \
        {                                                                                          \
            BMCBUS_LOG_EXCEPTION_IN(FUNNEL_LOG_FILE, alternate, "\n", what);                       \
        }                                                                                          \
    } while (false)

namespace bmcbus::funnel
{

inline constexpr const char* foreignException = "not a std::exception";

} // namespace bmcbus::funnel
