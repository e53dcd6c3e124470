#pragma once

/**
 * @file
 * Calls with results as members of the generated classes. For generated code.
 *
 * The members are inline and name an operation by its number; the message is made, and the reply
 * read, by the tables of the class, which are compiled into the library.
 */

#include <bmcbus/async_call.hpp>
#include <bmcbus/client/target.hpp>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace bmcbus::client
{

/** What can be called with the result of a call. */
template <class F, class T>
concept CompletionOf = std::invocable < std::decay_t<F>
&, Result < T >> ;

/** What an operation asks for. */
enum class Ask : uint8_t
{
    Get,
    Set,
    GetAll,
    Method
};

/** Which operation of an interface; a register holds it. */
struct OperationId
{
    uint16_t number; ///< of the property or the method
    Ask ask;
};

/** One operation of an object, and what goes with it. */
struct Operation
{
    Target& target;
    const void* const* in; ///< arguments in order, the value of a `Set`
    OperationId id;
};

/** A call, not yet sent; null with @p refusal filled where it cannot be made. */
BMCBUS_EXPORT MessageRef MakeCall(const Operation& operation, CallError& refusal) noexcept;

/** How to read the reply to it. */
BMCBUS_EXPORT const bmcbus::detail::ReplyType& ReplyOf(const Operation& operation) noexcept;

/** Makes, sends and waits; false with @p error filled when there is no value. */
BMCBUS_EXPORT bool Exchange(const Operation& operation, const CallOptions& options, void* value,
                            CallError& error) noexcept;

/** Makes and sends @p call, which finishes exactly once, possibly before this returns. */
BMCBUS_EXPORT bmcbus::Call Launch(const Operation& operation, const CallOptions& options,
                                  bmcbus::detail::TypedCall& call) noexcept;

/** Reads nothing. For the tables. */
BMCBUS_EXPORT void ReadNothing(sd_bus_message* reply, void* value, const void* how);
/** Reads the values of a method's reply to where its table says. For the tables. */
BMCBUS_EXPORT void ReadOut(sd_bus_message* reply, void* value, const void* how);
/** Reads the value of a property. For the tables. */
BMCBUS_EXPORT void ReadValue(sd_bus_message* reply, void* value, const void* how);
/** Reads all properties. For the tables. */
BMCBUS_EXPORT void ReadAll(sd_bus_message* reply, void* value, const void* how);

// The forms take the parts of an operation: calls of them put together nothing in memory.

/** The blocking form. One instance for a type, not for each call. */
template <class T>
[[gnu::noinline]] Result<T> Try(Target& target, const void* const* in, OperationId id,
                                const CallOptions& options)
{
    return bmcbus::detail::Filled<T>(
        [&](void* value, CallError& error) {
            return Exchange({target, in, id}, options, value, error);
        });
}

/** The form to be awaited. */
template <class T>
[[gnu::noinline]] AsyncCall<T> Await(Target& target, const void* const* in, OperationId id,
                                     const CallOptions& options)
{
    const Operation operation = {target, in, id};
    CallError refusal;
    MessageRef message = MakeCall(operation, refusal);
    return AsyncCall<T>(std::move(message), &refusal, ReplyOf(operation), options, &target.calls);
}

/** The form with a completion. */
template <class T, class Completion>
bmcbus::Call Start(Target& target, const void* const* in, OperationId id,
                   const CallOptions& options, Completion&& completion)
{
    using Pending = bmcbus::detail::CallbackCall<T, std::decay_t<Completion>>;
    return Launch({target, in, id}, options, *new Pending(std::forward<Completion>(completion)));
}

/** The addresses of a method's arguments; they live as long as the full expression. */
template <size_t Count>
struct Arguments
{
    const void* at[Count];
};
template <class... T>
Arguments<(sizeof...(T) > 0 ? sizeof...(T) : 1)> Pass(const T&... in)
{
    return {{&in...}};
}

} // namespace bmcbus::client
