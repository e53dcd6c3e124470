#pragma once

/**
 * @file
 * Enumerations that travel as text. For generated code and its users.
 */

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace bmcbus
{

/**
 * The texts of an enumeration on the bus: `prefix`, e.g. "com.example.Lamp.Color.", and `names`,
 * one for each value, counted from 0. The generator specialises it.
 */
template <class Enum>
struct EnumTexts;

/** An enumeration with texts. */
template <class Enum>
concept TextEnum = requires
{
    EnumTexts<Enum>::prefix;
};

/**
 * The text of @p value on the bus; empty for a number that is no value. Any thread. Throws
 * `std::bad_alloc`.
 */
template <TextEnum Enum>
std::string ToText(Enum value)
{
    const auto index = static_cast<size_t>(value);
    std::string text;
    if (index < EnumTexts<Enum>::names.size())
    {
        text = EnumTexts<Enum>::prefix;
        text += EnumTexts<Enum>::names[index];
    }
    return text;
}

/**
 * The value that @p text means; false, with @p value left alone, for a text that is none of them.
 * Any thread.
 */
template <TextEnum Enum>
bool FromText(std::string_view text, Enum& value)
{
    constexpr std::string_view prefix = EnumTexts<Enum>::prefix;
    if (text.starts_with(prefix))
    {
        text.remove_prefix(prefix.size());
        for (size_t index = 0; index < EnumTexts<Enum>::names.size(); ++index)
        {
            if (EnumTexts<Enum>::names[index] == text)
            {
                value = static_cast<Enum>(index);
                return true;
            }
        }
    }
    return false;
}

} // namespace bmcbus
