#pragma once

/**
 * @file
 * How the overloads of the generated classes tell text and flags apart, and a path from a service.
 * For generated headers.
 */

#include <concepts>
#include <string>

namespace bmcbus::client
{

/** What a pointer to text says; null means empty. */
inline std::string TextOf(const char* text)
{
    return text != nullptr ? text : "";
}

/**
 * Text literals and pointers to text, as opposed to everything that converts to them.
 *
 * A pointer converts to `bool` more readily than to `std::string`, and to a variant as readily; the
 * overloads for this concept make a literal mean text.
 */
template <class T>
concept TextPointer = std::same_as<T, const char*> || std::same_as<T, char*>;

/** What would turn into a `bool` without being one, and is not @p Meant for another parameter. */
template <class T, class... Meant>
concept NoFlag = std::convertible_to<T, bool> && !std::same_as<T, bool> &&
                 !(std::convertible_to<T, Meant> || ...);

/** Whether @p Class has a `Create` for a path, a service and @p More. */
template <class Class, class... More>
concept CreatableFrom = requires(std::string text, More... more)
{
    Class::Create(text, text, more...);
};

/** Whether a path and a service stand in one another's place. @{ */
[[gnu::always_inline]] constexpr bool AreSwapped(const char* path, const char* service)
{
    return path != nullptr && service != nullptr && *path != '/' && *service == '/';
}
// clang asks before it looks at what a template requires.
template <class At, class Owner>
constexpr bool AreSwapped(const At& /*path*/, const Owner& /*service*/)
{
    return false;
}
/** @} */

/**
 * Cached classes take a path and a service, direct classes a service and a path. Two literals in
 * one another's place do not compile: always with clang, whose front end compares them, and from
 * -O1 with g++, which sees what is left when the functions below are inlined. Other text is looked
 * at while the program runs, and logged. One that is wrong by itself is refused where it is used.
 */
#define BMCBUS_SWAPPED                                                                             \
    "a path begins with '/', a service never does: "                                               \
    "cached classes take (path, service), direct classes (service, path)"
#ifdef __clang__
#define BMCBUS_IN_ORDER(path, service)                                                             \
    _Pragma("clang diagnostic push") _Pragma("clang diagnostic ignored \"-Wgcc-compat\"")          \
        __attribute__((diagnose_if(bmcbus::client::AreSwapped(path, service), BMCBUS_SWAPPED,      \
                                   "error"))) _Pragma("clang diagnostic pop")
inline void Swapped() {}
#else
#define BMCBUS_IN_ORDER(path, service)
[[gnu::error(BMCBUS_SWAPPED)]] void Swapped();
#endif

/** The path for the constructor, looked at together with the service. */
[[gnu::always_inline]] inline std::string PathOf(const char* path, const char* service)
{
    if (__builtin_constant_p(*path) && __builtin_constant_p(*service) && AreSwapped(path, service))
    {
        Swapped();
    }
    return path;
}

} // namespace bmcbus::client
