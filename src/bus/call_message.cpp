// Puts a call together. A step that fails becomes the error that the call ends with, and names
// whom it was for.

#include "bus/call_message.hpp"

#include "bus/bus.hpp"
#include "bus/call_errors.hpp"
#include "bus/text.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>
#include <new>
#include <utility>

namespace bmcbus::detail
{
namespace
{

// Whom it was for, as far as there is memory for that.
void Describe(const Destination& to, CallError& refusal) noexcept
{
    try
    {
        std::string text = refusal.message;
        text.append(" (").append(to.service).append(" ").append(to.path).append(" ");
        text.append(to.interface).append(".").append(to.member).append(")");
        refusal.message = std::move(text);
    }
    catch (const std::bad_alloc&)
    {
        return;
    }
}

} // namespace

CallError Refusal(const std::exception& thrown) noexcept
{
    const auto* error = dynamic_cast<const Error*>(&thrown);
    CallError refusal = RefusedError(thrown.what());
    if (error != nullptr)
    {
        refusal = StepError(-error->get_errno(), "");
        refusal.message = RefusedError(error->what()).message;
    }
    return refusal;
}

CallError Refusal(const std::exception& thrown, const Destination& to) noexcept
{
    CallError refusal = Refusal(thrown);
    Describe(to, refusal);
    return refusal;
}

MessageRef NewRequest(sd_bus* bus, const Destination& to, CallError& refusal) noexcept
{
    try
    {
        Require(IsWhole(to.interface) && IsWhole(to.member) ? 0 : -EINVAL,
                "sd_bus_message_new_method_call");
        return NewCallOn(bus, to.service, to.path, to.interface.data(), to.member.data());
    }
    catch (const std::exception& error)
    {
        refusal = Refusal(error, to);
    }
    return nullptr;
}

bool AppendTo(sd_bus_message* call, void (*append)(sd_bus_message* call, const void* value),
              const void* value, CallError& refusal) noexcept
{
    try
    {
        append(call, value);
        return true;
    }
    catch (const std::exception& error)
    {
        refusal = Refusal(error);
    }
    return false;
}

} // namespace bmcbus::detail
