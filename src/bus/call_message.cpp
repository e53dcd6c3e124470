#include "bus/call_message.hpp"

#include "bus/bus.hpp"
#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>
#include <new>
#include <utility>

namespace bmcbus::detail
{
namespace
{

BusRef Take(sd_bus* bus)
{
    // Under a connection that is being freed nothing may be looked up, least of all itself.
    if (Hub::Freeing(bus))
    {
        throw Error(ENOTCONN, "sd_bus_default_system");
    }
    if (bus != nullptr)
    {
        return BusRef(sd_bus_ref(bus));
    }
    sd_bus* raw = nullptr;
    Require(sd_bus_default_system(&raw), "sd_bus_default_system");
    return BusRef(raw);
}

bool IsWhole(std::string_view name)
{
    return name.find('\0') == std::string_view::npos;
}

// What a step threw, as the result of a call that was never sent.
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

MessageRef NewRequest(sd_bus* bus, const Destination& to, CallError& refusal) noexcept
{
    try
    {
        const bool whole =
            IsWhole(to.service) && IsWhole(to.path) && IsWhole(to.interface) && IsWhole(to.member);
        Require(whole ? 0 : -EINVAL, "sd_bus_message_new_method_call");
        const BusRef on = Take(bus);
        return NewCall(on.get(), to.service.data(), to.path.data(), to.interface.data(),
                       to.member.data());
    }
    catch (const std::exception& error)
    {
        refusal = Refusal(error);
        Describe(to, refusal);
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
