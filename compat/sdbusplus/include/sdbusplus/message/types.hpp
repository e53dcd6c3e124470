#pragma once

/**
 * @file
 * How C++ types map to D-Bus types.
 */

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace message
{

/** Text that travels as an object path. Its syntax is not checked. */
struct object_path
{
    std::string str;

    object_path() = default;
    object_path(const object_path&) = default;
    object_path(object_path&&) = default;
    object_path& operator=(const object_path&) = default;
    object_path& operator=(object_path&&) = default;
    ~object_path() = default;

    object_path(const char* text) : str(text)
    {
    }
    object_path(const std::string& text) : str(text)
    {
    }
    object_path(std::string&& text) noexcept : str(std::move(text))
    {
    }

    operator const std::string&() const noexcept
    {
        return str;
    }

    friend bool operator==(const object_path&, const object_path&) = default;
    friend std::strong_ordering operator<=>(const object_path&, const object_path&) = default;
};

namespace details
{

template <typename T, typename... Choices>
concept one_of = (std::is_same_v<T, Choices> || ...);

/** Numbers whose arrays lie in a message as they lie in memory. */
template <typename T>
concept number = one_of<T, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
                        std::int64_t, std::uint64_t, double>;

template <typename T>
concept text = one_of<T, std::string, const char*, char*>;

template <typename T>
struct is_sequence : std::false_type
{
};
template <typename T, typename A>
struct is_sequence<std::vector<T, A>> : std::true_type
{
};
template <typename T, typename A>
struct is_sequence<std::list<T, A>> : std::true_type
{
};

template <typename T>
struct is_set : std::false_type
{
};
template <typename T, typename C, typename A>
struct is_set<std::set<T, C, A>> : std::true_type
{
};

template <typename T>
struct is_array : std::false_type
{
};
template <typename T, std::size_t n>
struct is_array<std::array<T, n>> : std::true_type
{
};

template <typename T>
struct is_map : std::false_type
{
};
template <typename K, typename V, typename C, typename A>
struct is_map<std::map<K, V, C, A>> : std::true_type
{
};
template <typename K, typename V, typename H, typename E, typename A>
struct is_map<std::unordered_map<K, V, H, E, A>> : std::true_type
{
};

template <typename T>
struct is_pair : std::false_type
{
};
template <typename K, typename V>
struct is_pair<std::pair<K, V>> : std::true_type
{
};

template <typename T>
struct is_tuple : std::false_type
{
};
template <typename... T>
struct is_tuple<std::tuple<T...>> : std::true_type
{
};

template <typename T>
struct is_variant : std::false_type
{
};
template <typename... T>
struct is_variant<std::variant<T...>> : std::true_type
{
};

/** A vector or array of numbers, read and written in one piece. */
template <typename T>
struct is_bulk : std::false_type
{
};
template <number T, typename A>
struct is_bulk<std::vector<T, A>> : std::true_type
{
};
template <number T, std::size_t n>
struct is_bulk<std::array<T, n>> : std::true_type
{
};

/** Signature text that is put together while compiling; the size leaves out the final zero. */
template <std::size_t n>
struct signature_text
{
    char data[n + 1] = {};

    constexpr const char* c_str() const noexcept
    {
        return data;
    }
};

template <std::size_t... n>
constexpr auto join(const signature_text<n>&... parts)
{
    signature_text<(n + ... + 0)> all;
    std::size_t at = 0;
    const auto add = [&](const char* part, std::size_t length)
    {
        for (std::size_t i = 0; i < length; ++i)
        {
            all.data[at++] = part[i];
        }
    };
    (add(parts.data, n), ...);
    return all;
}

constexpr signature_text<1> letter(char c)
{
    return {{c, '\0'}};
}

template <typename T>
struct signature_of;

/** The D-Bus signature of a C++ type. A type without one does not compile. */
template <typename T>
inline constexpr auto signature = signature_of<std::remove_cvref_t<T>>::value;

template <char c>
struct basic_signature
{
    static constexpr auto value = letter(c);
};

// clang-format off
template <> struct signature_of<bool> : basic_signature<'b'> {};
template <> struct signature_of<std::uint8_t> : basic_signature<'y'> {};
template <> struct signature_of<std::int16_t> : basic_signature<'n'> {};
template <> struct signature_of<std::uint16_t> : basic_signature<'q'> {};
template <> struct signature_of<std::int32_t> : basic_signature<'i'> {};
template <> struct signature_of<std::uint32_t> : basic_signature<'u'> {};
template <> struct signature_of<std::int64_t> : basic_signature<'x'> {};
template <> struct signature_of<std::uint64_t> : basic_signature<'t'> {};
template <> struct signature_of<double> : basic_signature<'d'> {};
template <text T> struct signature_of<T> : basic_signature<'s'> {};
template <> struct signature_of<object_path> : basic_signature<'o'> {};
template <typename... T> struct signature_of<std::variant<T...>> : basic_signature<'v'> {};
// clang-format on

template <typename T>
requires(is_sequence<T>::value || is_set<T>::value || is_array<T>::value) struct signature_of<T>
{
    static constexpr auto value = join(letter('a'), signature<typename T::value_type>);
};

template <typename T>
requires(is_map<T>::value) struct signature_of<T>
{
    static constexpr auto value = join(letter('a'), letter('{'), signature<typename T::key_type>,
                                       signature<typename T::mapped_type>, letter('}'));
};

template <typename... T>
struct signature_of<std::tuple<T...>>
{
    static constexpr auto value = join(letter('('), signature<T>..., letter(')'));
};

/** The signatures of several types in a row, as the contents of a container need them. */
template <typename... T>
inline constexpr auto contents = join(signature<T>...);

} // namespace details
} // namespace message
} // namespace sdbusplus

#pragma GCC visibility pop
