#pragma once

// Which text may travel. The daemon closes the whole connection of a sender of other text, so
// everything that enters a message is looked at first.

#include <string_view>

namespace bmcbus
{

// True for text that may travel as a D-Bus string: valid UTF-8 without zero bytes.
bool IsBusText(std::string_view text);

} // namespace bmcbus
