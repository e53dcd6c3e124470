#include <bmcbus/call.hpp>

#include "bus/bus.hpp"
#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"

#include <cerrno>
#include <utility>

// The blocking form: the one wait that all blocking calls share, with a result in place of a line.

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

// The reply, or null with `error` filled.
MessageRef Ask(sd_bus_message* call, const CallOptions& options, CallError& error)
{
    sd_bus* bus = sd_bus_message_get_bus(call);
    const uint64_t now = Now();
    const uint64_t end = DeadlineOf(bus, options, now);
    MessageRef reply;
    if (end <= now)
    {
        error = TimeoutError();
        return reply;
    }
    sd_bus_error failure = SD_BUS_ERROR_NULL;
    const int result = bmcbus::Exchange(bus, call, failure, reply,
                                        end == never ? Deadline() : Deadline::In(end - now));
    if (result < 0)
    {
        error = WaitError(call, result, failure, Now() >= end);
    }
    sd_bus_error_free(&failure);
    // What came meanwhile waits in the queue, where no descriptor shows it.
    if (Hub* hub = Hub::Find(bus))
    {
        hub->RingIfQueued();
    }
    return reply;
}

} // namespace

bool Exchange(MessageRef call, const CallOptions& options, const ReplyType& type, void* value,
              CallError& error) noexcept
{
    const MessageRef reply = Ask(call.get(), options, error);
    return reply != nullptr && Decode(reply.get(), type, value, error);
}

} // namespace bmcbus::detail
