#pragma once

/**
 * @file
 * Values to and from bus messages, straight over sd-bus.
 *
 * `Wire<T>::Read` replaces what its target held, leaves it alone where nothing of that type comes
 * next, and throws `bmcbus::Error` with the texts that sdbusplus uses for the same failures. Arrays
 * of numbers are copied whole, and the type of a variant is looked at once. `Wire<T>::Append`
 * refuses text that may not travel.
 *
 * Nothing here blocks. Use it on the thread that the message's connection belongs to.
 */

#include <bmcbus/error.hpp>
#include <bmcbus/export.h>
#include <bmcbus/object_path.hpp>
#include <systemd/sd-bus.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace bmcbus::client
{

/** The text of a type's D-Bus signature, put together at compile time. */
template <size_t N>
struct SignatureText
{
    std::array<char, N + 1> text{};

    constexpr const char* c_str() const { return text.data(); }
};

constexpr SignatureText<1> Letter(char c)
{
    return {{c, '\0'}};
}

template <size_t... N>
constexpr auto Join(const SignatureText<N>&... parts)
{
    SignatureText<(N + ... + 0)> all;
    size_t at = 0;
    [[maybe_unused]] const auto add = [&](const auto& part)
    {
        for (size_t i = 0; i + 1 < part.text.size(); ++i)
        {
            all.text[at++] = part.text[i];
        }
    };
    (add(parts), ...);
    return all;
}

/**
 * What a C++ type is on the wire: `signature`, `flat` (its arrays lie in a message as they lie in
 * memory), `Read` (false: the array being read has ended) and `Append`.
 */
template <class T>
struct Wire;

/** An array of numbers: as it lies in the message, or turned if the sender's byte order differs. */
struct FlatArray
{
    const void* data = nullptr;
    size_t bytes = 0;
    std::vector<std::byte> turned;
};

/** Steps that do not depend on a type; `step` names the call in an error. */
BMCBUS_EXPORT bool ReadBasic(sd_bus_message* message, char code, void* value);
BMCBUS_EXPORT bool ReadFlag(sd_bus_message* message, bool& value);
BMCBUS_EXPORT bool ReadText(sd_bus_message* message, char code, const char*& text);
BMCBUS_EXPORT bool ReadString(sd_bus_message* message, std::string& text);
BMCBUS_EXPORT bool ReadFlatArray(sd_bus_message* message, char code, size_t width,
                                 FlatArray& array);
BMCBUS_EXPORT bool Enter(sd_bus_message* message, char container, const char* contents,
                         const char* step);
BMCBUS_EXPORT void Exit(sd_bus_message* message, const char* step);
/** The signature inside the variant that comes next; null at the end of the body. */
BMCBUS_EXPORT const char* PeekVariant(sd_bus_message* message);
BMCBUS_EXPORT void SkipVariant(sd_bus_message* message);
BMCBUS_EXPORT void AppendBasic(sd_bus_message* message, char code, const void* value);
BMCBUS_EXPORT void AppendChecked(sd_bus_message* message, char code, const std::string& text);
BMCBUS_EXPORT void AppendFlatArray(sd_bus_message* message, char code, const void* data,
                                   size_t bytes);
BMCBUS_EXPORT void Open(sd_bus_message* message, char container, const char* contents);
BMCBUS_EXPORT void Close(sd_bus_message* message);

/** Names of the steps as sdbusplus words them. */
namespace step
{
inline constexpr const char* enterList = "sd_bus_message_enter_container emplace_back_container";
inline constexpr const char* exitList = "sd_bus_message_exit_container emplace_back_container";
inline constexpr const char* enterMap = "sd_bus_message_enter_container emplace_container";
inline constexpr const char* exitMap = "sd_bus_message_exit_container emplace_container";
inline constexpr const char* enterTuple = "sd_bus_message_enter_container tuple";
inline constexpr const char* exitTuple = "sd_bus_message_exit_container tuple";
inline constexpr const char* enterVariant = "sd_bus_message_enter_container variant";
inline constexpr const char* exitVariant = "sd_bus_message_exit_container variant";
} // namespace step

template <class T, char Code>
struct NumberWire
{
    static constexpr bool flat = true;
    static constexpr char code = Code;
    static constexpr auto signature = Letter(Code);

    static bool Read(sd_bus_message* message, T& value) { return ReadBasic(message, Code, &value); }
    static void Append(sd_bus_message* message, const T& value)
    {
        AppendBasic(message, Code, &value);
    }
};

template <>
struct Wire<uint8_t> : NumberWire<uint8_t, 'y'>
{
};
template <>
struct Wire<int16_t> : NumberWire<int16_t, 'n'>
{
};
template <>
struct Wire<uint16_t> : NumberWire<uint16_t, 'q'>
{
};
template <>
struct Wire<int32_t> : NumberWire<int32_t, 'i'>
{
};
template <>
struct Wire<uint32_t> : NumberWire<uint32_t, 'u'>
{
};
template <>
struct Wire<int64_t> : NumberWire<int64_t, 'x'>
{
};
template <>
struct Wire<uint64_t> : NumberWire<uint64_t, 't'>
{
};
template <>
struct Wire<double> : NumberWire<double, 'd'>
{
};

template <>
struct Wire<bool>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('b');

    static bool Read(sd_bus_message* message, bool& value) { return ReadFlag(message, value); }
    static void Append(sd_bus_message* message, const bool& value)
    {
        const int wide = value ? 1 : 0;
        AppendBasic(message, 'b', &wide);
    }
};

template <>
struct Wire<std::string>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('s');

    static bool Read(sd_bus_message* message, std::string& value)
    {
        return ReadString(message, value);
    }
    static void Append(sd_bus_message* message, const std::string& value)
    {
        AppendChecked(message, 's', value);
    }
};

template <>
struct Wire<ObjectPath>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('o');

    static bool Read(sd_bus_message* message, ObjectPath& value)
    {
        const char* text = nullptr;
        const bool found = ReadText(message, 'o', text);
        if (found)
        {
            value = ObjectPath(std::string(text));
        }
        return found;
    }
    static void Append(sd_bus_message* message, const ObjectPath& value)
    {
        AppendChecked(message, 'o', value.str);
    }
};

template <class List>
struct ListWire
{
    using T = typename List::value_type;
    static constexpr bool flat = false;
    static constexpr auto signature = Join(Letter('a'), Wire<T>::signature);

    static bool Read(sd_bus_message* message, List& list)
    {
        if (!Enter(message, SD_BUS_TYPE_ARRAY, Wire<T>::signature.c_str(), step::enterList))
        {
            return false;
        }
        list.clear();
        for (T item{}; Wire<T>::Read(message, item); item = T{})
        {
            list.push_back(std::move(item));
        }
        Exit(message, step::exitList);
        return true;
    }
    static void Append(sd_bus_message* message, const List& list)
    {
        Open(message, SD_BUS_TYPE_ARRAY, Wire<T>::signature.c_str());
        for (const T& item : list)
        {
            Wire<T>::Append(message, item);
        }
        Close(message);
    }
};

template <class T>
struct FlatListWire
{
    static constexpr bool flat = false;
    static constexpr auto signature = Join(Letter('a'), Wire<T>::signature);

    static bool Read(sd_bus_message* message, std::vector<T>& list)
    {
        FlatArray array;
        const bool found = ReadFlatArray(message, Wire<T>::code, sizeof(T), array);
        const T* first = static_cast<const T*>(array.data);
        list.assign(first, first + array.bytes / sizeof(T));
        return found;
    }
    static void Append(sd_bus_message* message, const std::vector<T>& list)
    {
        AppendFlatArray(message, Wire<T>::code, list.data(), list.size() * sizeof(T));
    }
};

template <class T>
struct Wire<std::vector<T>>
    : std::conditional_t<Wire<T>::flat, FlatListWire<T>, ListWire<std::vector<T>>>
{
};

/** A list of booleans is read and written one by one, since their memory is packed. */
template <>
struct Wire<std::vector<bool>>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Join(Letter('a'), Letter('b'));

    static bool Read(sd_bus_message* message, std::vector<bool>& list)
    {
        if (!Enter(message, SD_BUS_TYPE_ARRAY, "b", step::enterList))
        {
            return false;
        }
        list.clear();
        for (bool item = false; ReadFlag(message, item);)
        {
            list.push_back(item);
        }
        Exit(message, step::exitList);
        return true;
    }
    static void Append(sd_bus_message* message, const std::vector<bool>& list)
    {
        Open(message, SD_BUS_TYPE_ARRAY, "b");
        for (const bool item : list)
        {
            Wire<bool>::Append(message, item);
        }
        Close(message);
    }
};

template <class T>
struct Wire<std::list<T>> : ListWire<std::list<T>>
{
};

/** The first of two equal keys stays. */
template <class K, class V>
struct Wire<std::map<K, V>>
{
    static constexpr bool flat = false;
    static constexpr auto entry = Join(Wire<K>::signature, Wire<V>::signature);
    static constexpr auto element = Join(Letter('{'), entry, Letter('}'));
    static constexpr auto signature = Join(Letter('a'), element);

    static bool Read(sd_bus_message* message, std::map<K, V>& map)
    {
        if (!Enter(message, SD_BUS_TYPE_ARRAY, element.c_str(), step::enterMap))
        {
            return false;
        }
        map.clear();
        while (Enter(message, SD_BUS_TYPE_DICT_ENTRY, entry.c_str(), step::enterTuple))
        {
            K key{};
            V value{};
            Wire<K>::Read(message, key);
            Wire<V>::Read(message, value);
            map.emplace_hint(map.end(), std::move(key), std::move(value));
            Exit(message, step::exitTuple);
        }
        Exit(message, step::exitMap);
        return true;
    }
    static void Append(sd_bus_message* message, const std::map<K, V>& map)
    {
        Open(message, SD_BUS_TYPE_ARRAY, element.c_str());
        for (const auto& [key, value] : map)
        {
            Open(message, SD_BUS_TYPE_DICT_ENTRY, entry.c_str());
            Wire<K>::Append(message, key);
            Wire<V>::Append(message, value);
            Close(message);
        }
        Close(message);
    }
};

template <class... T>
struct Wire<std::tuple<T...>>
{
    static constexpr bool flat = false;
    static constexpr auto fields = Join(Wire<T>::signature...);
    static constexpr auto signature = Join(Letter('('), fields, Letter(')'));

    static bool Read(sd_bus_message* message, std::tuple<T...>& value)
    {
        if (!Enter(message, SD_BUS_TYPE_STRUCT, fields.c_str(), step::enterTuple))
        {
            return false;
        }
        std::apply([&](T&... field) { (Wire<T>::Read(message, field), ...); }, value);
        Exit(message, step::exitTuple);
        return true;
    }
    static void Append(sd_bus_message* message, const std::tuple<T...>& value)
    {
        Open(message, SD_BUS_TYPE_STRUCT, fields.c_str());
        std::apply([&](const T&... field) { (Wire<T>::Append(message, field), ...); }, value);
        Close(message);
    }
};

/** A value of no alternative's type is skipped and reads as alternative 0, value-initialised. */
template <class... T>
struct Wire<std::variant<T...>>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('v');

    static bool Read(sd_bus_message* message, std::variant<T...>& value)
    {
        const char* contents = PeekVariant(message);
        if (contents == nullptr)
        {
            value.template emplace<0>();
            return false;
        }
        if (!(ReadAs<T>(message, contents, value) || ...))
        {
            SkipVariant(message);
            value.template emplace<0>();
        }
        return true;
    }
    static void Append(sd_bus_message* message, const std::variant<T...>& value)
    {
        std::visit(
            [&]<class Held>(const Held& held)
            {
                Open(message, SD_BUS_TYPE_VARIANT, Wire<Held>::signature.c_str());
                Wire<Held>::Append(message, held);
                Close(message);
            },
            value);
    }

  private:
    template <class Held>
    static bool ReadAs(sd_bus_message* message, const char* contents, std::variant<T...>& value)
    {
        if (std::strcmp(contents, Wire<Held>::signature.c_str()) != 0)
        {
            return false;
        }
        Enter(message, SD_BUS_TYPE_VARIANT, Wire<Held>::signature.c_str(), step::enterVariant);
        Wire<Held>::Read(message, value.template emplace<Held>());
        Exit(message, step::exitVariant);
        return true;
    }
};

/** Reads one value, replacing what @p value held. Throws `bmcbus::Error`. */
template <class T>
void Read(sd_bus_message* message, T& value)
{
    Wire<T>::Read(message, value);
}

/** Appends one value. Throws `bmcbus::Error`, also for text that may not travel. */
template <class T>
void Append(sd_bus_message* message, const T& value)
{
    Wire<T>::Append(message, value);
}

} // namespace bmcbus::client
