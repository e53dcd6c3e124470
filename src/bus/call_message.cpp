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

std::string Describe(const Destination& to)
{
    return " (" + to.service + " " + to.path + " " + to.interface + "." + to.member + ")";
}

// What a step threw, as the result of a call that was never sent.
CallError Refusal(const Error& error)
{
    CallError refusal = StepError(-error.get_errno(), "");
    refusal.message = error.what();
    return refusal;
}

} // namespace

MessageRef NewRequest(sd_bus* bus, const Destination& to, CallError& refusal) noexcept
{
    try
    {
        const BusRef on = Take(bus);
        return NewCall(on.get(), to.service, to.path, to.interface.c_str(), to.member.c_str());
    }
    catch (const Error& error)
    {
        refusal = Refusal(error);
        refusal.message += Describe(to);
    }
    catch (const std::exception& error)
    {
        refusal = CallError(CallFailure::Refused, error_name::refused, error.what());
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
    catch (const Error& error)
    {
        refusal = Refusal(error);
    }
    catch (const std::exception& error)
    {
        refusal = CallError(CallFailure::Refused, error_name::refused, error.what());
    }
    return false;
}

} // namespace bmcbus::detail
