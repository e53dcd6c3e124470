#pragma once

/**
 * @file
 * Writing C++ values into a message. No result is looked at: what does not fit leaves the message
 * as it is, and text that may not travel makes the daemon drop the connection.
 */

#include <sdbusplus/message/types.hpp>
#include <systemd/sd-bus.h>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace message
{
namespace details
{

template <typename T>
void append_one(sd_bus_message* m, const T& value);

template <typename... T>
void append_container(sd_bus_message* m, char type, const char* inside, const T&... values)
{
    sd_bus_message_open_container(m, type, inside);
    (append_one(m, values), ...);
    sd_bus_message_close_container(m);
}

template <typename T>
void append_text(sd_bus_message* m, const T& value)
{
    if constexpr (std::is_same_v<T, object_path>)
    {
        sd_bus_message_append_basic(m, 'o', value.str.c_str());
    }
    else if constexpr (std::is_same_v<T, std::string>)
    {
        sd_bus_message_append_basic(m, 's', value.c_str());
    }
    else
    {
        sd_bus_message_append_basic(m, 's', value);
    }
}

template <typename T>
void append_elements(sd_bus_message* m, const T& value)
{
    // What follows the 'a' is the element's signature.
    sd_bus_message_open_container(m, 'a', signature<T>.c_str() + 1);
    for (const auto& element : value)
    {
        append_one<typename T::value_type>(m, element);
    }
    sd_bus_message_close_container(m);
}

template <typename T>
void append_one(sd_bus_message* m, const T& value)
{
    if constexpr (std::is_same_v<T, bool>)
    {
        const int wide = value ? 1 : 0;
        sd_bus_message_append_basic(m, 'b', &wide);
    }
    else if constexpr (number<T>)
    {
        sd_bus_message_append_basic(m, signature<T>.data[0], &value);
    }
    else if constexpr (text<T>)
    {
        append_text(m, value);
    }
    else if constexpr (bulk<T>)
    {
        sd_bus_message_append_array(m, signature<T>.data[1], value.data(),
                                    value.size() * sizeof(value[0]));
    }
    else if constexpr (is_a<T, std::pair>)
    {
        append_container(m, 'e', contents<typename T::first_type, typename T::second_type>.c_str(),
                         value.first, value.second);
    }
    else if constexpr (is_a<T, std::tuple>)
    {
        std::apply(
            [m](const auto&... parts) {
                append_container(m, 'r', contents<std::remove_cvref_t<decltype(parts)>...>.c_str(),
                                 parts...);
            },
            value);
    }
    else if constexpr (is_a<T, std::variant>)
    {
        std::visit(
            [m](const auto& held) {
                append_container(m, 'v', contents<std::remove_cvref_t<decltype(held)>>.c_str(),
                                 held);
            },
            value);
    }
    else
    {
        static_assert(sequence<T> || keyed<T>, "not a D-Bus type");
        append_elements(m, value);
    }
}

} // namespace details
} // namespace message
} // namespace sdbusplus

#pragma GCC visibility pop
