#pragma once

// Where a complete type ends in a signature.

#include <cstddef>
#include <string_view>

namespace bmcbus
{

// The length of the complete type at the start of `signature`; 0 when there is none.
size_t CompleteType(std::string_view signature) noexcept;

// Whether `text` is exactly one complete type.
bool IsCompleteType(std::string_view text) noexcept;

} // namespace bmcbus
