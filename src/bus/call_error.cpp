#include <bmcbus/call_error.hpp>

#include "bus/call_errors.hpp"

#include <cerrno>
#include <cstring>
#include <utility>

namespace bmcbus
{

CallError::CallError() noexcept = default;
CallError::CallError(CallFailure failure, std::string error, std::string text) noexcept :
    name(std::move(error)), message(std::move(text)), kind(failure)
{
}
CallError::CallError(const CallError& other) = default;
CallError::CallError(CallError&& other) noexcept = default;
CallError& CallError::operator=(const CallError& other) = default;
CallError& CallError::operator=(CallError&& other) noexcept = default;
CallError::~CallError() = default;

namespace detail
{
namespace
{

// The number of a message that libsystemd made itself.
constexpr uint64_t localCookie = 0xffffffff;

bool IsLocal(sd_bus_message* reply)
{
    uint64_t cookie = 0;
    return sd_bus_message_get_cookie(reply, &cookie) >= 0 && cookie == localCookie;
}

std::string Text(const char* text)
{
    return text != nullptr ? text : "";
}

bool SaysDisconnected(int result)
{
    return result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE ||
           result == -ECONNREFUSED || result == -ESHUTDOWN;
}

} // namespace

CallError TimeoutError()
{
    return {CallFailure::Timeout, error_name::timeout, "No reply came in time"};
}

CallError DisconnectedError()
{
    return {CallFailure::Disconnected, error_name::disconnected, "The connection to the bus ended"};
}

CallError CancelledError()
{
    return {CallFailure::Cancelled, error_name::cancelled, "The call was given up"};
}

CallError StepError(int result, const char* step)
{
    const bool disconnected = SaysDisconnected(result);
    return {disconnected ? CallFailure::Disconnected : CallFailure::Refused,
            disconnected ? error_name::disconnected : error_name::refused,
            std::string(step) + ": " + std::strerror(-result)};
}

CallError ReplyError(sd_bus_message* reply, bool overdue)
{
    if (IsLocal(reply))
    {
        if (sd_bus_is_open(sd_bus_message_get_bus(reply)) <= 0)
        {
            return DisconnectedError();
        }
        if (overdue)
        {
            return TimeoutError();
        }
    }
    const sd_bus_error* error = sd_bus_message_get_error(reply);
    return {CallFailure::Remote, Text(error->name), Text(error->message)};
}

} // namespace detail
} // namespace bmcbus
