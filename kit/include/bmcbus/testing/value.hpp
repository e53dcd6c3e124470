#pragma once

/**
 * @file
 * A value of any D-Bus type.
 *
 * Everything here is plain data: no function blocks, no function touches a connection except those
 * that take a message, and a Value may be used by one thread at a time like a std::string.
 */

#include <systemd/sd-bus.h>

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace bmcbus::testing
{

/** Text that travels as an object path (`o`) instead of a string. */
struct Path
{
    std::string text; /**< the path, starting with a slash */
};

/** Text that travels as a type signature (`g`) instead of a string. */
struct TypeSignature
{
    std::string text; /**< any number of complete types, e.g. "a{sv}u" */
};

class Value;

/** How C++ type @p T travels; specialised for every type that can. */
template <class T>
struct Codec;

/**
 * A C++ type that a Value can be made of: bool, integers of 8 (unsigned), 16, 32 and 64 bits,
 * double, text, Path, TypeSignature, vectors, lists and sets (arrays), maps (dictionaries), tuples
 * and pairs (structs), std::variant and, as an element, Value itself (both `v`).
 */
template <class T>
concept Sendable = requires(const T& value)
{
    {
        Codec<T>::Signature()
        } -> std::convertible_to<std::string>;
    {
        Codec<T>::Make(value)
        } -> std::same_as<Value>;
};

/** The D-Bus signature of C++ type @p T, e.g. "a{s(yyyb)}". */
template <Sendable T>
std::string SignatureOf()
{
    return Codec<T>::Signature();
}

/**
 * Splits @p signature into its complete types: "a{sv}u" into "a{sv}" and "u".
 *
 * Throws std::invalid_argument for text that is no signature.
 */
std::vector<std::string> SplitSignature(std::string_view signature);

/**
 * One complete D-Bus value: a type signature and the content.
 *
 * Not the library's `bmcbus::Variant`: what tests compare with does not go through the code under
 * test, says what no careful sender would (text that is not UTF-8, a key twice), and needs no
 * library.
 *
 * Made from C++ values without ceremony:
 * @code
 * Value fans = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>{
 *     {"fan1", {30, 31, 32, true}}};
 * fans.Signature();   // "a{s(yyyb)}"
 * fans.Text();        // a{s(yyyb)} 1 "fan1" 30 31 32 true
 * @endcode
 */
class Value
{
  public:
    /** From a C++ value; its type decides about the signature (see Sendable). */
    template <class T>
    requires(!std::same_as<T, Value> && Sendable<T>) Value(const T& value) :
        Value(Codec<T>::Make(value))
    {
    }

    /** From text (`s`). */
    Value(const char* text);

    /**
     * The value of @p signature that is false, zero, empty text, "/" for a path, an empty
     * container, or a variant of an empty string.
     *
     * Throws std::invalid_argument unless @p signature is one complete type.
     */
    static Value Default(std::string_view signature);

    /** A variant that holds @p content. */
    static Value Variant(Value content);

    /** A struct of @p fields; at least one, else std::invalid_argument. */
    static Value Struct(std::vector<Value> fields);

    /** An array; elements of another type than @p element throw std::invalid_argument. */
    static Value Array(std::string_view element, std::vector<Value> elements);

    /**
     * A dictionary in exactly this order, also with the same key twice.
     *
     * Entries of other types than @p key and @p value throw std::invalid_argument.
     */
    static Value Dictionary(std::string_view key, std::string_view value,
                            std::vector<std::pair<Value, Value>> entries);

    /** An open descriptor (`h`), borrowed: it must stay open until the message is built. */
    static Value Descriptor(int fd);

    /**
     * Reads the value at the message's read position and moves the position behind it.
     *
     * Throws std::system_error for a truncated message. Call it on the thread of the message's
     * connection.
     */
    static Value Read(sd_bus_message* message);

    /** Everything from the message's read position to the end of its body, as Read() does. */
    static std::vector<Value> ReadAll(sd_bus_message* message);

    /**
     * Appends the value to a message that is being built, on the thread of its connection.
     *
     * Throws std::system_error for what the daemon would punish by closing the connection: text
     * that is not UTF-8 or holds a zero byte, a path that is none. The message is of no use then.
     */
    void Append(sd_bus_message* message) const;

    /**
     * Throws std::invalid_argument, which names what is wrong, when no message can carry the value:
     * text that is not UTF-8 or holds a zero byte, a path or signature that is none.
     */
    void RequireTravels() const;

    /** The type, e.g. "a{sv}". */
    const std::string& Signature() const { return signature; }

    /**
     * Type and content as `busctl get-property` prints them: `as 2 "one" "two"`. What a terminal
     * would not show is written as `\xNN`.
     */
    std::string Text() const;

    /** The content alone as busctl prints it: `2 "one" "two"`. */
    std::string Body() const;

    /**
     * The same value as another type: numbers where the new type holds them exactly, text as path
     * or signature, anything wrapped into or out of a variant, containers element by element.
     *
     * Throws std::invalid_argument that names both types and the value.
     */
    Value As(std::string_view type) const;

    /**
     * The content as C++ type @p T, converted as by As().
     *
     * Throws std::invalid_argument when the value does not fit.
     */
    template <Sendable T>
    T Get() const
    {
        return Codec<T>::Get(As(Codec<T>::Signature()));
    }

    /** Elements of an array, fields of a struct, key and value of an entry, content of a variant.
     */
    const std::vector<Value>& Children() const;

    /** Equal types and equal contents. */
    bool operator==(const Value& other) const;

  private:
    using Content = std::variant<bool, uint8_t, int16_t, uint16_t, int32_t, uint32_t, int64_t,
                                 uint64_t, double, std::string, std::vector<Value>>;

    // Not inline: compilers lose track of the variant's state and warn in the user's code.
    Value(std::string type, Content value);

    // Takes any content as it is; only codecs and the sources of this class know what fits.
    template <class T>
    friend struct Codec;
    friend class ValueReader;

    Value Converted(std::string_view type) const;
    Value ConvertedNumber(char type) const;
    Value ConvertedContainer(std::string_view type) const;
    void AppendBasic(sd_bus_message* message) const;
    void AppendContainer(sd_bus_message* message) const;

    std::string signature;
    Content content;
};

/** Values in the order in which they travel; the same name may occur twice. */
using NamedValues = std::vector<std::pair<std::string, Value>>;

/** @p values as a{sv}, in this order. */
Value AsPropertyMap(const NamedValues& values);

/** The signatures of all values in a row, e.g. "sas". */
std::string SignatureOf(const std::vector<Value>& values);

/** Several values as `busctl call` takes them: `sas "/path" 1 "name"`; empty for none. */
std::string TextOf(const std::vector<Value>& values);

// --- how C++ types travel -----------------------------------------------------------------------

/** The integers that have a D-Bus type of the same size and sign. */
template <class T>
concept WireInteger =
    std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
    !std::same_as<T, signed char> && !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> &&
    !std::same_as<T, char16_t> && !std::same_as<T, char32_t> && sizeof(T) <= 8;

/// @cond internal
// Not an expression of + in the codecs: g++ 12 warns of overlapping memory in those it inlines.
std::string Bracketed(const char* before, std::initializer_list<std::string> types,
                      const char* after = "");

template <>
struct Codec<bool>
{
    static std::string Signature() { return "b"; }
    static Value Make(bool value) { return {"b", value}; }
    static bool Get(const Value& value) { return std::get<bool>(value.content); }
};

template <WireInteger T>
struct Codec<T>
{
    static constexpr size_t width = sizeof(T) == 1   ? 0
                                    : sizeof(T) == 2 ? 1
                                    : sizeof(T) == 4 ? 2
                                                     : 3;
    using Unsigned = std::tuple_element_t<width, std::tuple<uint8_t, uint16_t, uint32_t, uint64_t>>;
    using Signed = std::tuple_element_t<width, std::tuple<uint8_t, int16_t, int32_t, int64_t>>;
    using Wire = std::conditional_t<std::is_signed_v<T>, Signed, Unsigned>;

    static std::string Signature()
    {
        return std::string(1, std::is_signed_v<T> ? "ynix"[width] : "yqut"[width]);
    }
    static Value Make(T value) { return {Signature(), static_cast<Wire>(value)}; }
    static T Get(const Value& value) { return static_cast<T>(std::get<Wire>(value.content)); }
};

template <>
struct Codec<double>
{
    static std::string Signature() { return "d"; }
    static Value Make(double value) { return {"d", value}; }
    static double Get(const Value& value) { return std::get<double>(value.content); }
};

template <>
struct Codec<std::string>
{
    static std::string Signature() { return "s"; }
    static Value Make(const std::string& value) { return {"s", value}; }
    static std::string Get(const Value& value) { return std::get<std::string>(value.content); }
};

template <>
struct Codec<Path>
{
    static std::string Signature() { return "o"; }
    static Value Make(const Path& value) { return {"o", value.text}; }
    static Path Get(const Value& value) { return {std::get<std::string>(value.content)}; }
};

template <>
struct Codec<TypeSignature>
{
    static std::string Signature() { return "g"; }
    static Value Make(const TypeSignature& value) { return {"g", value.text}; }
    static TypeSignature Get(const Value& value) { return {std::get<std::string>(value.content)}; }
};

template <>
struct Codec<Value>
{
    static std::string Signature() { return "v"; }
    static Value Make(const Value& value) { return Value::Variant(value); }
    static Value Get(const Value& value) { return value.Children().front(); }
};

// What arrays of any container have in common.
template <class Container>
struct ArrayCodec
{
    using Element = typename Container::value_type;

    static std::string Signature() { return Bracketed("a", {Codec<Element>::Signature()}); }
    static Value Make(const Container& container)
    {
        std::vector<Value> elements;
        elements.reserve(container.size());
        for (const auto& element : container)
        {
            elements.push_back(Codec<Element>::Make(element));
        }
        return Value::Array(Codec<Element>::Signature(), std::move(elements));
    }
    static Container Get(const Value& value)
    {
        Container container;
        for (const Value& element : value.Children())
        {
            container.insert(container.end(), Codec<Element>::Get(element));
        }
        return container;
    }
};

template <Sendable T>
struct Codec<std::vector<T>> : ArrayCodec<std::vector<T>>
{
};

template <Sendable T>
struct Codec<std::list<T>> : ArrayCodec<std::list<T>>
{
};

template <Sendable T>
struct Codec<std::set<T>> : ArrayCodec<std::set<T>>
{
};

template <class Map>
struct MapCodec
{
    using Key = typename Map::key_type;
    using Mapped = typename Map::mapped_type;

    static std::string Signature()
    {
        return Bracketed("a{", {Codec<Key>::Signature(), Codec<Mapped>::Signature()}, "}");
    }
    static Value Make(const Map& map)
    {
        std::vector<std::pair<Value, Value>> entries;
        entries.reserve(map.size());
        for (const auto& [key, mapped] : map)
        {
            entries.emplace_back(Codec<Key>::Make(key), Codec<Mapped>::Make(mapped));
        }
        return Value::Dictionary(Codec<Key>::Signature(), Codec<Mapped>::Signature(),
                                 std::move(entries));
    }
    static Map Get(const Value& value)
    {
        Map map;
        for (const Value& entry : value.Children())
        {
            map.emplace(Codec<Key>::Get(entry.Children().at(0)),
                        Codec<Mapped>::Get(entry.Children().at(1)));
        }
        return map;
    }
};

template <Sendable K, Sendable V>
struct Codec<std::map<K, V>> : MapCodec<std::map<K, V>>
{
};

template <Sendable K, Sendable V>
struct Codec<std::unordered_map<K, V>> : MapCodec<std::unordered_map<K, V>>
{
};

template <class Struct, class... T>
struct StructCodec
{
    static std::string Signature() { return Bracketed("(", {Codec<T>::Signature()...}, ")"); }
    static Value Make(const Struct& fields)
    {
        return std::apply(
            [](const T&... field) { return Value::Struct({Codec<T>::Make(field)...}); }, fields);
    }
    static Struct Get(const Value& value) { return Fields(value, std::index_sequence_for<T...>()); }

  private:
    template <size_t... I>
    static Struct Fields(const Value& value, std::index_sequence<I...>)
    {
        return Struct{Codec<T>::Get(value.Children().at(I))...};
    }
};

template <Sendable... T>
requires(sizeof...(T) > 0) struct Codec<std::tuple<T...>> : StructCodec<std::tuple<T...>, T...>
{
};

template <Sendable A, Sendable B>
struct Codec<std::pair<A, B>> : StructCodec<std::pair<A, B>, A, B>
{
};

template <Sendable... T>
struct Codec<std::variant<T...>>
{
    static std::string Signature() { return "v"; }
    static Value Make(const std::variant<T...>& value)
    {
        return Value::Variant(
            std::visit([]<class H>(const H& held) { return Codec<H>::Make(held); }, value));
    }
    static std::variant<T...> Get(const Value& value)
    {
        const Value& held = value.Children().front();
        std::variant<T...> result;
        if (!(Take<T>(held, result) || ...))
        {
            throw std::invalid_argument("no alternative for " + held.Text());
        }
        return result;
    }

  private:
    template <class H>
    static bool Take(const Value& held, std::variant<T...>& result)
    {
        if (held.Signature() != Codec<H>::Signature())
        {
            return false;
        }
        result = Codec<H>::Get(held);
        return true;
    }
};
/// @endcond

} // namespace bmcbus::testing
