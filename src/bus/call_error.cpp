// Makes a CallError of everything that can end a call: sd-bus's negative results, error replies,
// and the replies that libsystemd makes up itself.

#include <bmcbus/call_error.hpp>

#include "bus/call_errors.hpp"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <new>
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

// What fits into a string without memory of its own.
constexpr const char* noMemory = "out of memory";

CallError Make(CallFailure kind, const char* name,
               std::initializer_list<const char*> texts) noexcept
{
    CallError error;
    error.kind = kind;
    try
    {
        for (const char* text : texts)
        {
            error.message += text != nullptr ? text : "";
        }
        error.name = name != nullptr ? name : "";
    }
    catch (const std::bad_alloc&)
    {
        error.message = noMemory;
    }
    return error;
}

// Also by what a bus is missing: no socket, or none for this user.
bool SaysDisconnected(int result)
{
    return result == -ENOTCONN || result == -ECONNRESET || result == -EPIPE ||
           result == -ECONNREFUSED || result == -ESHUTDOWN || result == -ENOENT ||
           result == -EACCES;
}

} // namespace

CallError TimeoutError() noexcept
{
    return Make(CallFailure::Timeout, error_name::timeout, {"No reply came in time"});
}

CallError DisconnectedError() noexcept
{
    return Make(CallFailure::Disconnected, error_name::disconnected,
                {"The connection to the bus ended"});
}

CallError CancelledError() noexcept
{
    return Make(CallFailure::Cancelled, error_name::cancelled, {"The call was given up"});
}

CallError RefusedError(const char* text, const char* more) noexcept
{
    return Make(CallFailure::Refused, error_name::refused, {text, more});
}

CallError TypesError(const char* expected, const char* found) noexcept
{
    return Make(CallFailure::ReplyTypes, error_name::replyTypes,
                {"The reply has the types \"", found, "\", not \"", expected, "\""});
}

CallError ReadError(const std::exception& failure) noexcept
{
    if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr)
    {
        return Make(CallFailure::OutOfMemory, error_name::outOfMemory, {noMemory});
    }
    return Make(CallFailure::ReplyTypes, error_name::replyTypes, {failure.what()});
}

CallError StepError(int result, const char* step) noexcept
{
    const bool disconnected = SaysDisconnected(result);
    return Make(disconnected ? CallFailure::Disconnected : CallFailure::Refused,
                disconnected ? error_name::disconnected : error_name::refused,
                {step, ": ", std::strerror(-result)});
}

CallError RemoteError(const sd_bus_error& error) noexcept
{
    return Make(CallFailure::Remote, error.name, {error.message});
}

CallError ReplyError(sd_bus_message* reply, bool overdue) noexcept
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
    return RemoteError(*sd_bus_message_get_error(reply));
}

} // namespace detail
} // namespace bmcbus
