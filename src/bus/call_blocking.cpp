// The blocking form of a call with a result: the wait that all blocking calls share (bus.cpp),
// whose failures become an error in the result and no line in the log.

#include <bmcbus/call.hpp>

#include "bus/bus.hpp"
#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"

#include <cerrno>
#include <utility>

namespace bmcbus::detail
{
namespace
{

// sd-bus gives errors of its own and error replies in the same way.
CallError WaitError(sd_bus_message* call, int result, const sd_bus_error& error, bool overdue)
{
    uint64_t cookie = 0;
    const bool sent = sd_bus_message_get_cookie(call, &cookie) >= 0;
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_TIMEOUT) != 0 && overdue)
    {
        return TimeoutError();
    }
    if (!sent || result == -ELOOP || error.name == nullptr)
    {
        return StepError(result, "sd_bus_call");
    }
    if (sd_bus_is_open(sd_bus_message_get_bus(call)) <= 0)
    {
        return DisconnectedError();
    }
    return RemoteError(error);
}

// Waits until the connection is up. The time that is left then; zero with `error` filled when
// there is none, or no connection.
uint64_t AwaitTurn(sd_bus* bus, uint64_t end, CallError& error)
{
    const int result = end > Now() ? AwaitReady(bus, Deadline::At(end)) : -ETIMEDOUT;
    const uint64_t now = Now();
    if (result < 0 || end <= now)
    {
        error =
            result < 0 && result != -ETIMEDOUT ? StepError(result, "sd_bus_call") : TimeoutError();
        return 0;
    }
    return end == never ? never : end - now;
}

// The reply, or null with `error` filled.
MessageRef Ask(sd_bus_message* call, const CallOptions& options, CallError& error)
{
    sd_bus* bus = sd_bus_message_get_bus(call);
    const uint64_t began = Now();
    uint64_t timeout = 0; // the connection's own
    MessageRef reply;
    if (options.timeout.count() != 0 || options.deadline.At() != never || sd_bus_is_ready(bus) <= 0)
    {
        timeout = AwaitTurn(bus, DeadlineOf(bus, options, began), error);
        if (timeout == 0)
        {
            return reply;
        }
    }
    sd_bus_error failure = SD_BUS_ERROR_NULL;
    const int result = bmcbus::Exchange(bus, call, failure, reply, timeout);
    if (result < 0)
    {
        error = WaitError(call, result, failure, Now() >= DeadlineOf(bus, options, began));
        sd_bus_error_free(&failure);
    }
    return reply;
}

} // namespace

bool Exchange(sd_bus_message* call, const CallOptions& options, const ReplyType& type, void* value,
              CallError& error) noexcept
{
    const MessageRef reply = Ask(call, options, error);
    return reply != nullptr && Decode(reply.get(), type, value, error);
}

} // namespace bmcbus::detail
