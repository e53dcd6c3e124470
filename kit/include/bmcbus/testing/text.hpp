#pragma once

/**
 * @file
 * Text on its way over the bus and onto a terminal.
 *
 * Any thread may call these functions; none blocks.
 */

#include <string>
#include <string_view>

namespace bmcbus::testing
{

/**
 * True for text that a message may carry: UTF-8 without zero bytes. The daemon closes the
 * connection that sends other text.
 */
bool MayTravel(std::string_view text);

/**
 * @p text for people to read: letters as they are, and `\xNN` for every byte that a terminal would
 * not show (control characters, what is no UTF-8) or that is one of @p also.
 */
std::string Printable(std::string_view text, std::string_view also = {});

} // namespace bmcbus::testing
