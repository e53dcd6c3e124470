#pragma once

/**
 * @file
 * Reading C++ values out of a message. Containers are never cleared: sequences grow, and entries
 * that a map already has stay. A failure inside a container leaves the read position inside it.
 */

#include <sdbusplus/exception.hpp>
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
void read_one(sd_bus_message* m, T& value);

inline int check(int result, const char* prefix)
{
    if (result < 0)
    {
        throw exception::SdBusError(result, prefix);
    }
    return result;
}

/** The prefixes of what can fail around the elements of an array. */
struct array_prefixes
{
    const char* enter;
    const char* at_end;
    const char* exit;
};

inline constexpr array_prefixes to_the_end{
    "sd_bus_message_enter_container emplace_back_container",
    "sd_bus_message_at_end emplace_back_container",
    "sd_bus_message_exit_container emplace_back_container",
};

inline constexpr array_prefixes by_key{
    "sd_bus_message_enter_container emplace_container",
    "sd_bus_message_at_end emplace_container",
    "sd_bus_message_exit_container emplace_container",
};

template <typename Element, typename Store>
void read_array(sd_bus_message* m, const char* inside, const array_prefixes& prefixes,
                const Store& store)
{
    check(sd_bus_message_enter_container(m, 'a', inside), prefixes.enter);
    while (check(sd_bus_message_at_end(m, 0), prefixes.at_end) == 0)
    {
        Element element{};
        read_one(m, element);
        store(std::move(element));
    }
    check(sd_bus_message_exit_container(m), prefixes.exit);
}

template <typename... T>
void read_struct(sd_bus_message* m, char type, T&... parts)
{
    check(sd_bus_message_enter_container(m, type, contents<T...>.c_str()),
          "sd_bus_message_enter_container tuple");
    (read_one(m, parts), ...);
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container tuple");
}

template <typename T>
void read_text(sd_bus_message* m, T& value)
{
    const char* found = nullptr;
    check(sd_bus_message_read_basic(m, signature<T>.data[0], &found),
          "sd_bus_message_read_basic string");
    if (found != nullptr) // null at the end of an array, which is no failure
    {
        value = T(found);
    }
}

template <typename T, typename A>
void read_bulk(sd_bus_message* m, std::vector<T, A>& value)
{
    const void* data = nullptr;
    std::size_t size = 0;
    check(sd_bus_message_read_array(m, signature<T>.data[0], &data, &size),
          "sd_bus_message_read_array");
    const auto* first = static_cast<const T*>(data);
    value.insert(value.end(), first, first + size / sizeof(T));
}

/** Stores the variant's value if it has the signature of this alternative. */
template <typename Alternative, typename... T>
bool read_alternative(sd_bus_message* m, std::variant<T...>& value)
{
    constexpr const auto& inside = signature<Alternative>;
    if (check(sd_bus_message_verify_type(m, 'v', inside.c_str()),
              "sd_bus_message_verify_type variant") == 0)
    {
        return false;
    }
    check(sd_bus_message_enter_container(m, 'v', inside.c_str()),
          "sd_bus_message_enter_container variant");
    Alternative found{};
    read_one(m, found);
    value.template emplace<Alternative>(std::move(found));
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container variant");
    return true;
}

template <typename First, typename... T>
void read_variant(sd_bus_message* m, std::variant<First, T...>& value)
{
    if (read_alternative<First>(m, value) || (read_alternative<T>(m, value) || ...))
    {
        return;
    }
    check(sd_bus_message_skip(m, "v"), "sd_bus_message_skip variant");
    value.template emplace<0>();
}

template <typename T>
void read_one(sd_bus_message* m, T& value)
{
    if constexpr (std::is_same_v<T, bool>)
    {
        int wide = 0;
        check(sd_bus_message_read_basic(m, 'b', &wide), "sd_bus_message_read_basic bool");
        value = wide != 0;
    }
    else if constexpr (number<T>)
    {
        check(sd_bus_message_read_basic(m, signature<T>.data[0], &value),
              "sd_bus_message_read_basic fundamental");
    }
    else if constexpr (text<T>)
    {
        read_text(m, value);
    }
    else if constexpr (bulk<T>)
    {
        read_bulk(m, value);
    }
    else if constexpr (growing<T>)
    {
        using Element = typename T::value_type;
        read_array<Element>(m, signature<Element>.c_str(), to_the_end,
                            [&](Element&& element) { value.emplace_back(std::move(element)); });
    }
    else if constexpr (keyed_by_itself<T>)
    {
        using Element = typename T::value_type;
        read_array<Element>(m, signature<Element>.c_str(), by_key,
                            [&](Element&& element) { value.emplace(std::move(element)); });
    }
    else if constexpr (keyed<T>)
    {
        using Entry = std::pair<typename T::key_type, typename T::mapped_type>;
        read_array<Entry>(m, signature<T>.c_str() + 1, by_key,
                          [&](Entry&& entry) { value.emplace(std::move(entry)); });
    }
    else if constexpr (is_a<T, std::pair>)
    {
        read_struct(m, 'e', value.first, value.second);
    }
    else if constexpr (is_a<T, std::tuple>)
    {
        std::apply([m](auto&... parts) { read_struct(m, 'r', parts...); }, value);
    }
    else
    {
        static_assert(is_a<T, std::variant>, "not a D-Bus type");
        read_variant(m, value);
    }
}

} // namespace details
} // namespace message
} // namespace sdbusplus

#pragma GCC visibility pop
