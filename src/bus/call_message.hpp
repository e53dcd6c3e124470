#pragma once

// Putting a call together so that what goes wrong becomes its result instead of an exception.

#include <bmcbus/call_error.hpp>
#include <bmcbus/refs.hpp>
#include <bmcbus/request.hpp>

#include <exception>

namespace bmcbus::detail
{

// What a step threw, as the result of a call that was never sent.
CallError Refusal(const std::exception& thrown) noexcept;

// The same, and whom it was for.
CallError Refusal(const std::exception& thrown, const Destination& to) noexcept;

// A call by name; null with `refusal` filled when it cannot be made.
MessageRef NewRequest(sd_bus* bus, const Destination& to, CallError& refusal) noexcept;

// Runs a writer of arguments; false with `refusal` filled when it throws.
bool AppendTo(sd_bus_message* call, void (*append)(sd_bus_message* call, const void* value),
              const void* value, CallError& refusal) noexcept;

} // namespace bmcbus::detail
