#pragma once

// Lines of generated code: the file label is the interface's, the function name is given.

#include "log.hpp"

#include <bmcbus/client/object.hpp>

#define CLIENT_LOG(level, label, function, text, ...)                                              \
    CLIENT_LOG_FORMAT(level, label, function, "%s.%d.%s: " text __VA_OPT__(, ) __VA_ARGS__)

// The same for a format that comes from a class's table.
#define CLIENT_LOG_FORMAT(level, label, function, format, ...)                                     \
    static_cast<void>(dlog_printf(bmcbus::log::level, bmcbus::log::generatedSource, format,        \
                                  (label), __LINE__, (function)__VA_OPT__(, ) __VA_ARGS__))

namespace bmcbus::client
{

// Logs `error` as caught in `prefix` + `member`, for example "Get_" and "fanCount".
void LogException(const char* label, const char* prefix, const char* member,
                  const std::exception& error);

// "Get_" and "fanCount" in one text, made only when a line needs it.
class MemberName
{
  public:
    MemberName(const char* prefix, const char* name);

    const char* c_str() const { return text_; }

  private:
    char text_[288]; // a prefix and a member name, which the bus limits to 255 bytes
};

} // namespace bmcbus::client
