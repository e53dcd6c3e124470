// UTF-8 as the bus wants it: decoded letter by letter, since a daemon closes the connection of
// whoever sends anything else.

#include <bmcbus/testing/text.hpp>

#include <array>
#include <cstdint>
#include <cstdio>

namespace bmcbus::testing
{
namespace
{

struct Letter
{
    size_t length = 0; // in bytes; 0: there is none
    uint32_t code = 0;
};

// The letter at the start of `text`.
Letter FirstLetter(std::string_view text)
{
    const auto byte = [&](size_t at)
    { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const uint32_t first = byte(0);
    if (first < 0x80)
    {
        return {1, first};
    }
    const size_t length = first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    uint32_t code = first & (0xFFU >> length);
    for (size_t at = 1; at < length; ++at)
    {
        if ((byte(at) & 0xC0U) != 0x80U)
        {
            return {};
        }
        code = code << 6U | (byte(at) & 0x3FU);
    }
    // What fits into fewer bytes is no letter in more, nor is half of a UTF-16 pair.
    constexpr std::array<uint32_t, 5> least = {0, 0, 0x80, 0x800, 0x10000};
    const bool whole =
        code >= least.at(length) && code <= 0x10FFFF && code >> 11U != 0xD800U >> 11U;
    return whole ? Letter{length, code} : Letter{};
}

} // namespace

bool MayTravel(std::string_view text)
{
    while (!text.empty())
    {
        const Letter letter = FirstLetter(text);
        if (letter.length == 0 || letter.code == 0)
        {
            return false;
        }
        text.remove_prefix(letter.length);
    }
    return true;
}

std::string Printable(std::string_view text, std::string_view also)
{
    std::string shown;
    while (!text.empty())
    {
        const Letter letter = FirstLetter(text);
        const bool control = letter.code < 0x20 || (letter.code >= 0x7F && letter.code < 0xA0);
        if (letter.length == 0 || control || also.find(text.front()) != std::string_view::npos)
        {
            char escaped[5];
            static_cast<void>(std::snprintf(escaped, sizeof(escaped), "\\x%02x",
                                            static_cast<unsigned char>(text.front())));
            shown += escaped;
            text.remove_prefix(1);
        }
        else
        {
            shown += text.substr(0, letter.length);
            text.remove_prefix(letter.length);
        }
    }
    return shown;
}

} // namespace bmcbus::testing
