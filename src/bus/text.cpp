// UTF-8 by its definition: no overlong forms, no surrogates, nothing beyond U+10FFFF.

#include "bus/text.hpp"

#include <cstddef>

namespace bmcbus
{
namespace
{

// Length of the longer UTF-8 sequence at the start of `s`, 0 when there is none.
size_t SequenceLength(const unsigned char* s, size_t left)
{
    const auto continues = [&](size_t at) { return at < left && (s[at] & 0xC0U) == 0x80U; };
    const auto second = [&](unsigned char low, unsigned char high)
    { return left > 1 && s[1] >= low && s[1] <= high; };
    const unsigned char first = s[0];
    if (first >= 0xC2 && first <= 0xDF)
    {
        return continues(1) ? 2 : 0;
    }
    if (first >= 0xE0 && first <= 0xEF)
    {
        // Neither overlong forms nor surrogates.
        const bool valid = second(first == 0xE0 ? 0xA0 : 0x80, first == 0xED ? 0x9F : 0xBF);
        return valid && continues(2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4)
    {
        const bool valid = second(first == 0xF0 ? 0x90 : 0x80, first == 0xF4 ? 0x8F : 0xBF);
        return valid && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

} // namespace

bool IsOtherBusText(std::string_view text)
{
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = s + text.size();
    while (s != end)
    {
        const bool plain = *s - 1U < 0x7F;
        const size_t length = plain ? 1 : SequenceLength(s, static_cast<size_t>(end - s));
        if (length == 0)
        {
            return false;
        }
        s += length;
    }
    return true;
}

} // namespace bmcbus
