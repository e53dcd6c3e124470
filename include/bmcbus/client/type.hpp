#pragma once

/**
 * @file
 * Values whose type is known by a table instead of a template parameter.
 *
 * The run-time half of the generated classes is compiled once. It reaches an object's fields
 * through tables that the generated code supplies; a `Type` says how to handle the value behind a
 * pointer.
 */

#include <bmcbus/wire.hpp>

#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <span>
#include <variant>

namespace bmcbus::client
{

/** How to handle values of one C++ type; there is one object per type and binary. */
struct Type
{
    const char* signature;
    size_t size;
    void (*construct)(void* at);
    void (*destroy)(void* value);
    void (*clear)(void* value);
    void* (*emplace)(void* optional); ///< gives a `std::optional` a new value, and where it is
    void (*copy)(void* to, const void* from);
    void (*move)(void* to, void* from);
    void (*read)(sd_bus_message* message, void* value);
    void (*append)(sd_bus_message* message, const void* value);
};

namespace detail
{

template <class T>
T& As(void* value)
{
    return *static_cast<T*>(value);
}

template <class T>
const T& As(const void* value)
{
    return *static_cast<const T*>(value);
}

template <class T>
void Clear(T& value)
{
    // Keeps the memory of lists and text for the next value.
    if constexpr (requires { value.clear(); })
    {
        value.clear();
    }
    else
    {
        value = T{};
    }
}

// Lists of what has parts: an assignment that reuses the memory of the parts takes four times the
// code. Numbers and texts keep theirs.
template <class T>
void Copy(T& to, const T& from)
{
    if constexpr (
        requires { from.front().front(); } || requires { std::get<0>(from.front()); })
    {
        T(from).swap(to);
    }
    else
    {
        to = from;
    }
}

} // namespace detail

template <class T>
inline constexpr Type typeOf = {
    .signature = Wire<T>::signature.c_str(),
    .size = sizeof(T),
    .construct = [](void* at) { ::new (at) T{}; },
    .destroy = [](void* value) { static_cast<T*>(value)->~T(); },
    .clear = [](void* value) { detail::Clear(detail::As<T>(value)); },
    .emplace = [](void* optional) -> void*
    { return &detail::As<std::optional<T>>(optional).emplace(); },
    .copy = [](void* to, const void* from)
    { detail::Copy(detail::As<T>(to), detail::As<T>(from)); },
    .move = [](void* to, void* from) { detail::As<T>(to) = std::move(detail::As<T>(from)); },
    .read = [](sd_bus_message* message, void* value) { Read(message, detail::As<T>(value)); },
    .append = [](sd_bus_message* message, const void* value)
    { Append(message, detail::As<T>(value)); },
};

/** A borrowed value; `type` is null for a variant without a value. */
struct ConstRef
{
    const Type* type = nullptr;
    const void* value = nullptr;
};

template <class T>
ConstRef RefTo(const T& value)
{
    return {&typeOf<T>, &value};
}

/** What an interface's property-value variant can hold, in index order. */
using Alternatives = std::span<const Type* const>;

/** How to handle a property-value variant behind a pointer. */
struct VariantType
{
    /** Makes it hold alternative @p index, moved from @p value. */
    void (*store)(void* variant, size_t index, void* value);

    /** What it holds. */
    ConstRef (*held)(const void* variant);
};

/** What @p variant holds. */
template <class... T>
ConstRef Held(const std::variant<T...>& variant)
{
    if (variant.valueless_by_exception())
    {
        return {};
    }
    return std::visit([](const auto& value) { return RefTo(value); }, variant);
}

namespace detail
{

template <class Variant, size_t... Index>
void StoreAlternative(void* variant, size_t index, void* value, std::index_sequence<Index...>)
{
    auto& target = As<Variant>(variant);
    static_cast<void>(
        ((index == Index && (target.template emplace<Index>(
                                 std::move(As<std::variant_alternative_t<Index, Variant>>(value))),
                             true)) ||
         ...));
}

} // namespace detail

template <class Variant>
inline constexpr VariantType variantOf = {
    .store =
        [](void* variant, size_t index, void* value)
    {
        detail::StoreAlternative<Variant>(variant, index, value,
                                          std::make_index_sequence<std::variant_size_v<Variant>>{});
    },
    .held = [](const void* variant) { return Held(detail::As<Variant>(variant)); },
};

} // namespace bmcbus::client
