#pragma once

/**
 * @file
 * How C++ types lie in a Variant. Include `<bmcbus/variant.hpp>`.
 */

#include <bmcbus/variant/value.hpp>

#include <bit>
#include <concepts>
#include <cstdint>
#include <list>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace bmcbus
{

/// @cond internal
// Take reads an item of a container or a whole value: false when it is of another type.

template <class T>
requires(client::Wire<T>::flat) struct Stored<T>
{
    static Variant Make(T value) noexcept
    {
        if constexpr (std::same_as<T, double>)
        {
            return Variant::Number('d', std::bit_cast<uint64_t>(value));
        }
        else
        {
            return Variant::Number(client::Wire<T>::code, static_cast<uint64_t>(value));
        }
    }
    static bool Take(const Variant& from, T& value)
    {
        const bool fits = from.type_ == client::Wire<T>::code;
        value = fits ? from.NumberAs<T>() : T{};
        return fits;
    }
};

/** The other integer type of the same size as one above, e.g. long long beside long. */
template <class T>
requires(std::same_as<T, long long> || std::same_as<T, unsigned long long> ||
         std::same_as<T, long> || std::same_as<T, unsigned long>) &&
    (!requires { client::Wire<T>::flat; }) struct Stored<T>
{
    using Same = std::conditional_t<sizeof(T) == 8,
                                    std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>,
                                    std::conditional_t<std::is_signed_v<T>, int32_t, uint32_t>>;

    static Variant Make(T value) noexcept { return Stored<Same>::Make(static_cast<Same>(value)); }
};

template <>
struct Stored<bool>
{
    static Variant Make(bool value) noexcept { return Variant::Number('b', value ? 1 : 0); }
    static bool Take(const Variant& from, bool& value)
    {
        value = from.type_ == 'b' && from.bits_ != 0;
        return from.type_ == 'b';
    }
};

template <>
struct Stored<std::string>
{
    static Variant Make(std::string value) noexcept
    {
        return Variant::OfText('s', std::move(value));
    }
    static bool Take(const Variant& from, std::string& value)
    {
        const bool fits = from.type_ == 's';
        value = fits ? from.text_ : std::string();
        return fits;
    }
};

template <>
struct Stored<ObjectPath>
{
    static Variant Make(const ObjectPath& value) { return Variant::OfText('o', value.str); }
    static bool Take(const Variant& from, ObjectPath& value)
    {
        const bool fits = from.type_ == 'o';
        value = fits ? ObjectPath(from.text_) : ObjectPath();
        return fits;
    }
};

template <>
struct Stored<Signature>
{
    static Variant Make(const Signature& value) { return Variant::OfText('g', value.str()); }
    static bool Take(const Variant& from, Signature& value)
    {
        const bool fits = from.type_ == 'g';
        value = fits ? Signature(from.text_) : Signature();
        return fits;
    }
};

template <>
struct Stored<UnixFd>
{
    static Variant Make(const UnixFd& value) { return Variant::OfDescriptor(value); }
    static bool Take(const Variant& from, UnixFd& value)
    {
        const bool fits = from.type_ == 'h';
        value = fits ? from.Descriptor() : UnixFd();
        return fits;
    }
};

template <>
struct Stored<Variant>
{
    static const Variant& Make(const Variant& value) noexcept { return value; }
    static bool Take(const Variant& from, Variant& value)
    {
        value = from;
        return from.HasValue();
    }
};

template <Storable... T>
struct Stored<std::variant<T...>>
{
    static Variant Make(const std::variant<T...>& value)
    {
        return std::visit([](const auto& held) { return Variant(held); }, value);
    }
    static bool Take(const Variant& from, std::variant<T...>& value)
    {
        return (Stored<T>::Take(from, value.template emplace<T>()) || ...);
    }
};

template <class List>
struct StoredList
{
    using T = typename List::value_type;

    static Variant Make(const List& list)
    {
        std::vector<Variant> items;
        items.reserve(list.size());
        for (const T& item : list)
        {
            items.push_back(Stored<T>::Make(item));
        }
        return Variant::OfItems(client::Wire<List>::signature.c_str(), std::move(items));
    }
    static bool Take(const Variant& from, List& list)
    {
        const bool fits = from.HasSignature(client::Wire<List>::signature.c_str());
        for (const Variant& each : fits ? from.Items() : std::span<const Variant>())
        {
            T item{};
            if (!Stored<T>::Take(each, item))
            {
                return false;
            }
            list.push_back(std::move(item));
        }
        return fits;
    }
};

template <class List>
struct StoredNumbers
{
    using T = typename List::value_type;

    static Variant Make(const List& list)
    {
        const std::vector<T> flat(list.begin(), list.end());
        return Variant::OfNumbers(client::Wire<T>::code, flat.data(), flat.size() * sizeof(T));
    }
    static bool Take(const Variant& from, List& list)
    {
        const bool fits = from.HasSignature(client::Wire<List>::signature.c_str());
        const std::span<const T> numbers = fits ? from.Numbers<T>() : std::span<const T>();
        list.assign(numbers.begin(), numbers.end());
        return fits;
    }
};

template <Storable T>
struct Stored<std::vector<T>>
    : std::conditional_t<client::Wire<T>::flat, StoredNumbers<std::vector<T>>,
                         StoredList<std::vector<T>>>
{
};

template <Storable T>
struct Stored<std::list<T>> : std::conditional_t<client::Wire<T>::flat, StoredNumbers<std::list<T>>,
                                                 StoredList<std::list<T>>>
{
};

template <Storable K, Storable V>
struct Stored<std::map<K, V>>
{
    using Map = std::map<K, V>;

    static Variant Make(const Map& map)
    {
        std::vector<Variant> items;
        items.reserve(2 * map.size());
        for (const auto& [key, value] : map)
        {
            items.push_back(Stored<K>::Make(key));
            items.push_back(Stored<V>::Make(value));
        }
        return Variant::OfItems(client::Wire<Map>::signature.c_str(), std::move(items));
    }
    static bool Take(const Variant& from, Map& map)
    {
        if (!from.HasSignature(client::Wire<Map>::signature.c_str()))
        {
            return false;
        }
        const std::span<const Variant> items = from.Items();
        for (size_t i = 0; i < items.size(); i += 2)
        {
            K key{};
            V value{};
            if (!Stored<K>::Take(items[i], key) || !Stored<V>::Take(items[i + 1], value))
            {
                return false;
            }
            map.emplace_hint(map.end(), std::move(key), std::move(value));
        }
        return true;
    }
};

template <Storable... T>
requires(sizeof...(T) > 0) struct Stored<std::tuple<T...>>
{
    using Tuple = std::tuple<T...>;

    static Variant Make(const Tuple& value)
    {
        std::vector<Variant> items;
        items.reserve(sizeof...(T));
        std::apply([&](const T&... field) { (items.push_back(Stored<T>::Make(field)), ...); },
                   value);
        return Variant::OfItems(client::Wire<Tuple>::signature.c_str(), std::move(items));
    }
    static bool Take(const Variant& from, Tuple& value)
    {
        if (!from.HasSignature(client::Wire<Tuple>::signature.c_str()))
        {
            return false;
        }
        const Variant* item = from.Items().data();
        return std::apply([&](T&... field) { return (Stored<T>::Take(*item++, field) && ...); },
                          value);
    }
};
/// @endcond

} // namespace bmcbus
