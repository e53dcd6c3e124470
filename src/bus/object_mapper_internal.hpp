#pragma once

// What the blocking and the asynchronous questions share.

#include "log.hpp"

#include <bmcbus/wire.hpp>
#include <object_mapper.hpp>

#include <exception>
#include <list>
#include <string>

// Lines of a function that is not the one being compiled. Callers filter by the file that a line
// names: it is the object mapper's, whichever source writes it.
#define LOG_FOR(function, level, text, ...)                                                        \
    BMCBUS_LOG_IN("object_mapper.cpp", level, bmcbus::log::librarySource, function,                \
                  text __VA_OPT__(, ) __VA_ARGS__)

// The same for a format that is put together, location included.
#define LOG_FOR_FORMAT(function, level, format, ...)                                               \
    static_cast<void>(dlog_printf(bmcbus::log::level, bmcbus::log::librarySource, format,          \
                                  "object_mapper.cpp", __LINE__,                                   \
                                  (function)__VA_OPT__(, ) __VA_ARGS__))

namespace ObjectMapper::internal
{

inline constexpr const char* mapperService = "xyz.openbmc_project.ObjectMapper";
inline constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";
inline constexpr const char* mapperInterface = "xyz.openbmc_project.ObjectMapper";

using Names = std::list<std::string>;

// What a failed GetObject was asked.
void LogObjectFailure(const char* function, const std::exception& e, const std::string& path,
                      const Names& interfaces);

template <class Result>
Result Read(sd_bus_message* reply)
{
    Result result;
    bmcbus::client::Read(reply, result);
    return result;
}

} // namespace ObjectMapper::internal
