#pragma once

// What a request to the event-log daemon looks like, and who answers it.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bmcbus::event_log
{

inline constexpr const char* daemonService = "com.tamm.ovrik.wharfd.wharfd";
inline constexpr const char* daemonPath = "/com/tamm/ovrik/wharfd/wharfd";
inline constexpr const char* daemonInterface = "com.tamm.ovrik.wharfd.wharfd";
inline constexpr const char* daemonMethod = "NQRCE_REQ_TYPE_LOG_QZL_EVENT";

// The optional parts of a request travel as (tag, text) pairs.
enum class Tag : uint16_t
{
    message = 2,
    fqdd = 3,
    arguments = 6
};

// Each argument's bytes and its terminating zero, then one more zero, in hexadecimal digits.
std::string Encode(const std::vector<std::string>& args);

// Whether an error comes from the bus, or from sd-bus about a reply, in place of the daemon.
bool IsForeign(std::string_view name, std::string_view message);

} // namespace bmcbus::event_log
