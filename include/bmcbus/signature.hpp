#pragma once

/**
 * @file
 * Type signatures as values (`g`).
 */

#include <bmcbus/export.h>
#include <bmcbus/wire.hpp>

#include <compare>
#include <string>
#include <string_view>

namespace bmcbus
{

/**
 * The text of a D-Bus type signature, checked: any number of complete types, 255 characters at
 * most, arrays and structs each nested 32 deep at most. Empty at first.
 *
 * A plain value: one object is used by one thread at a time, nothing blocks.
 */
class BMCBUS_EXPORT Signature
{
  public:
    Signature() = default;

    /** Throws std::invalid_argument, naming the text, unless it is a signature. */
    explicit Signature(std::string text);

    /** Whether @p text is a signature. */
    static bool Valid(std::string_view text) noexcept;

    /** The text, e.g. "a{sv}u". */
    const std::string& str() const noexcept { return text_; }

    /** By the text. */
    friend bool operator==(const Signature&, const Signature&) = default;
    /** By the text. */
    friend std::strong_ordering operator<=>(const Signature&, const Signature&) = default;

  private:
    std::string text_;
};

namespace client
{

template <>
struct Wire<Signature>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('g');

    BMCBUS_EXPORT static bool Read(sd_bus_message* message, Signature& value);
    BMCBUS_EXPORT static void Append(sd_bus_message* message, const Signature& value);
};

} // namespace client
} // namespace bmcbus
