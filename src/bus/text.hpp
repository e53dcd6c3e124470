#pragma once

// Which text may travel. The daemon closes the whole connection of a sender of other text, so
// everything that enters a message is looked at first.

#include <string_view>

namespace bmcbus
{

// Whether text has no zero byte, at which C functions would stop reading.
inline bool IsWhole(std::string_view text)
{
    return text.find('\0') == std::string_view::npos;
}

// Whether text in which something is not ASCII, or zero, may travel.
bool IsOtherBusText(std::string_view text);

// True for text that may travel as a D-Bus string: valid UTF-8 without zero bytes.
inline bool IsBusText(std::string_view text)
{
    for (const char c : text)
    {
        if (static_cast<unsigned char>(c) - 1U >= 0x7F)
        {
            return IsOtherBusText(text);
        }
    }
    return true;
}

} // namespace bmcbus
