#pragma once

/**
 * @file
 * Any method call by name.
 */

#include <bmcbus/async_call.hpp>
#include <bmcbus/export.h>
#include <bmcbus/sdbusplus.hpp>
#include <bmcbus/wire.hpp>

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace bmcbus
{

namespace detail
{

/** What a reply with these values is to its caller. */
template <class... Out>
struct Replied
{
    using type = std::tuple<Out...>;
};
template <class Out>
struct Replied<Out>
{
    using type = Out;
};
template <>
struct Replied<>
{
    using type = void;
};

/** Where a call goes; each text ends in a zero byte. */
struct Destination
{
    std::string_view service;
    std::string_view path;
    std::string_view interface;
    std::string_view member;
};

template <class... Out>
inline constexpr auto bodySignature = client::Join(client::Wire<Out>::signature...);

template <class... Out>
void ReadBody([[maybe_unused]] sd_bus_message* reply, [[maybe_unused]] void* value,
              const void* /*how*/)
{
    if constexpr (sizeof...(Out) == 1)
    {
        (client::Read(reply, *static_cast<Out*>(value)), ...);
    }
    else if constexpr (sizeof...(Out) > 1)
    {
        std::apply([&](auto&... out) { (client::Read(reply, out), ...); },
                   *static_cast<std::tuple<Out...>*>(value));
    }
}

template <class... Out>
inline constexpr ReplyType bodyOf = {.signature = bodySignature<Out...>.c_str(),
                                     .property = false,
                                     .read = ReadBody<Out...>,
                                     .how = nullptr};

} // namespace detail

/**
 * One call of any method of any object, put together by name.
 *
 * Out-arguments are named as template arguments: none gives `Result<void>`, one `Result<T>`,
 * several `Result<std::tuple<…>>`. What cannot be sent (a malformed name, text that may not travel)
 * shows in the result, as `CallFailure::Refused`; where there is no connection, as `Disconnected`.
 * A request is sent once.
 *
 * Belongs to one thread: that of its connection. See `call.hpp` for the asynchronous form.
 *
 * @code
 * bmcbus::Request question("com.example.Fans", "/fans", "com.example.Fans", "SpeedOf");
 * const bmcbus::Result<uint32_t> speed = question.With("Fan1").Try<uint32_t>({.timeout = 200ms});
 * @endcode
 */
class BMCBUS_EXPORT Request
{
  public:
    /** On the calling thread's default system-bus connection, which must be held by somebody. */
    Request(const std::string& service, const std::string& path, const std::string& interface,
            const std::string& member) noexcept;

    /** On @p bus. */
    Request(sd_bus* bus, const std::string& service, const std::string& path,
            const std::string& interface, const std::string& member) noexcept;
    /** On @p bus, a wrapped connection. */
    Request(Bus& bus, const std::string& service, const std::string& path,
            const std::string& interface, const std::string& member) noexcept;

    /** Takes the message. @{ */
    Request(Request&&) noexcept = default;
    Request& operator=(Request&&) noexcept = default;
    /** @} */
    ~Request() = default;

    /** Adds arguments, each with the D-Bus type that belongs to its C++ type. */
    template <class... Argument>
    Request& With(const Argument&... arguments) &
    {
        (Add(arguments), ...);
        return *this;
    }
    /** The same for one that is made and used in one expression. */
    template <class... Argument>
    Request&& With(const Argument&... arguments) &&
    {
        (Add(arguments), ...);
        return std::move(*this);
    }

    /** Sends it and waits for the reply, as long as @p options say. */
    template <class... Out>
    Result<typename detail::Replied<Out...>::type> Try(const CallOptions& options = {})
    {
        return TryAs<typename detail::Replied<Out...>::type>(detail::bodyOf<Out...>, options);
    }

    /** Sends it; @p completion gets the result. Destroying the handle cancels it: `call.hpp`. */
    template <class... Out, class Completion>
    requires std::invocable<Completion&, Result<typename detail::Replied<Out...>::type>>
        Call Async(Completion&& completion, const CallOptions& options = {})
    {
        return AsyncAs<typename detail::Replied<Out...>::type>(
            detail::bodyOf<Out...>, std::forward<Completion>(completion), options);
    }

    /** Is sent when it is awaited. */
    template <class... Out>
    AsyncCall<typename detail::Replied<Out...>::type> Async(const CallOptions& options = {})
    {
        return AsyncAs<typename detail::Replied<Out...>::type>(detail::bodyOf<Out...>, options);
    }

    /// @cond internal
    Request(sd_bus* bus, const detail::Destination& to) noexcept;

    // Adds what `write` appends to a message; what it throws shows in the result.
    template <class Write>
    Request&& Written(const Write& write) &&
    {
        Append([](sd_bus_message* call, const void* writer)
               { (*static_cast<const Write*>(writer))(call); },
               &write);
        return std::move(*this);
    }

    // The same with a reader of the reply's own.
    template <class T>
    Result<T> TryAs(const detail::ReplyType& type, const CallOptions& options)
    {
        return detail::TryCall<T>(std::move(message), Why(), options, type);
    }
    template <class T, class Completion>
    requires std::invocable<Completion&, Result<T>> Call AsyncAs(const detail::ReplyType& type,
                                                                 Completion&& completion,
                                                                 const CallOptions& options)
    {
        using Pending = detail::CallbackCall<T, std::decay_t<Completion>>;
        return detail::Launch(*new Pending(std::forward<Completion>(completion)), type,
                              std::move(message), *Why(), options, nullptr);
    }
    template <class T>
    AsyncCall<T> AsyncAs(const detail::ReplyType& type, const CallOptions& options)
    {
        return {std::move(message), Why(), type, options, nullptr};
    }
    /// @endcond

  private:
    template <class T>
    void Add(const T& argument)
    {
        if constexpr (!std::is_same_v<T, std::string> &&
                      std::is_convertible_v<const T&, std::string_view>)
        {
            Add(std::string(std::string_view(argument)));
        }
        else
        {
            Append([](sd_bus_message* call, const void* value)
                   { client::Append(call, *static_cast<const T*>(value)); },
                   &argument);
        }
    }
    void Append(void (*append)(sd_bus_message* call, const void* value),
                const void* value) noexcept;

    // Why there is no message, when there is none.
    CallError* Why() noexcept;

    CallError refusal; // before the message, whose making may fill it
    MessageRef message;
    uint64_t size = 0; // of the message so far
};

} // namespace bmcbus
