#pragma once

/**
 * @file
 * How the overloads of the generated classes tell text and flags apart. For generated headers.
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

} // namespace bmcbus::client
