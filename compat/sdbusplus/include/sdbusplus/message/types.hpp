#pragma once

/**
 * @file
 * How C++ types map to D-Bus types.
 */

#include <sdbusplus/message/native_types.hpp>

#include <array>
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

namespace details
{

template <typename T, template <typename...> class Template>
inline constexpr bool is_a = false;
template <template <typename...> class Template, typename... T>
inline constexpr bool is_a<Template<T...>, Template> = true;

template <typename T>
inline constexpr bool is_array = false;
template <typename T, std::size_t n>
inline constexpr bool is_array<std::array<T, n>> = true;

template <typename T, typename... Choices>
concept one_of = (std::is_same_v<T, Choices> || ...);

/** Numbers whose arrays lie in a message as they lie in memory. */
template <typename T>
concept number = one_of<T, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t,
                        std::int64_t, std::uint64_t, double>;

template <typename T>
concept text = one_of<T, std::string, const char*, char*, object_path>;

template <typename T>
concept keyed_by_itself = is_a<T, std::set>;

template <typename T>
concept growing = is_a<T, std::vector> || is_a<T, std::list>;

template <typename T>
concept keyed = is_a<T, std::map> || is_a<T, std::unordered_map>;

template <typename T>
concept sequence = growing<T> || keyed_by_itself<T> || is_array<T>;

/** Numbers in a row, read and written in one piece. */
template <typename T>
concept bulk = number<typename T::value_type> &&(is_a<T, std::vector> || is_array<T>);

/** Signature text that is put together while compiling; the size leaves out the final zero. */
template <std::size_t n>
struct signature_text
{
    char data[n + 1] = {};

    constexpr const char* c_str() const noexcept { return data; }
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
template <> struct signature_of<std::string> : basic_signature<'s'> {};
template <> struct signature_of<const char*> : basic_signature<'s'> {};
template <> struct signature_of<char*> : basic_signature<'s'> {};
template <> struct signature_of<object_path> : basic_signature<'o'> {};
template <typename... T> struct signature_of<std::variant<T...>> : basic_signature<'v'> {};
// clang-format on

template <sequence T>
struct signature_of<T>
{
    static constexpr auto value = join(letter('a'), signature<typename T::value_type>);
};

template <keyed T>
struct signature_of<T>
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
