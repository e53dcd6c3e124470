// A value as another type, where that can say the same.

#include "bus/signature.hpp"
#include "bus/variant_inside.hpp"

#include <systemd/sd-bus.h>

#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>

namespace bmcbus
{
namespace
{

using Converted = std::optional<Variant>;

Converted To(std::string_view type, const Variant& value);

// A whole number, or a double.
struct Number
{
    bool negative = false; // `bits` are those of a negative int64_t
    uint64_t bits = 0;
    bool real = false;
    double fraction = 0;
};

Number NumberOf(const Variant& value)
{
    const char type = VariantInside::Type(value);
    const uint64_t bits = VariantInside::Bits(value);
    if (type == 'd')
    {
        return {.real = true, .fraction = std::bit_cast<double>(bits)};
    }
    const bool isSigned = type == 'n' || type == 'i' || type == 'x';
    return {.negative = isSigned && static_cast<int64_t>(bits) < 0, .bits = bits};
}

// The number as a whole one, if it is.
bool MakeWhole(Number& number)
{
    if (!number.real)
    {
        return true;
    }
    // Just beyond what 64 bits hold, on either side.
    const double low = -std::ldexp(1.0, 63);
    const double high = std::ldexp(1.0, 64);
    const double fraction = number.fraction;
    if (!(fraction >= low && fraction < high) || std::trunc(fraction) != fraction ||
        (fraction == 0 && std::signbit(fraction)))
    {
        return false;
    }
    number.negative = fraction < 0;
    number.bits = number.negative ? static_cast<uint64_t>(static_cast<int64_t>(fraction))
                                  : static_cast<uint64_t>(fraction);
    return true;
}

template <class T>
Converted Exactly(const Number& number)
{
    const bool fits = number.negative ? std::in_range<T>(static_cast<int64_t>(number.bits))
                                      : std::in_range<T>(number.bits);
    return fits ? Converted(Variant(static_cast<T>(number.bits))) : std::nullopt;
}

Converted ToDouble(const Number& number)
{
    if (number.real)
    {
        return Variant(number.fraction);
    }
    const double real = number.negative ? static_cast<double>(static_cast<int64_t>(number.bits))
                                        : static_cast<double>(number.bits);
    Number back{.real = true, .fraction = real};
    const bool same =
        MakeWhole(back) && back.bits == number.bits && back.negative == number.negative;
    return same ? Converted(Variant(real)) : std::nullopt;
}

Converted ToNumber(char type, const Variant& value)
{
    if (NumberWidth(VariantInside::Type(value)) == 0)
    {
        return {};
    }
    Number number = NumberOf(value);
    if (type == 'd')
    {
        return ToDouble(number);
    }
    if (!MakeWhole(number))
    {
        return {};
    }
    switch (type)
    {
        case 'y':
            return Exactly<uint8_t>(number);
        case 'n':
            return Exactly<int16_t>(number);
        case 'q':
            return Exactly<uint16_t>(number);
        case 'i':
            return Exactly<int32_t>(number);
        case 'u':
            return Exactly<uint32_t>(number);
        case 'x':
            return Exactly<int64_t>(number);
        default:
            return Exactly<uint64_t>(number);
    }
}

Converted ToText(char type, const Variant& value)
{
    if (!VariantInside::IsText(value))
    {
        return {};
    }
    const std::string& text = VariantInside::TextOf(value);
    const bool fits =
        type == 's' || (type == 'g' ? Signature::Valid(text)
                                    : text.find('\0') == std::string::npos &&
                                          sd_bus_object_path_is_valid(text.c_str()) > 0);
    return fits ? Converted(VariantInside::Text(type, text)) : std::nullopt;
}

// The items of a container or of an array of numbers, as values.
std::vector<Variant> ItemsOf(const Variant& value)
{
    const std::span<const Variant> items = VariantInside::Items(value);
    std::vector<Variant> all(items.begin(), items.end());
    const char type = VariantInside::NodeSignature(value)[1];
    const std::span<const std::byte> raw = VariantInside::Raw(value);
    for (size_t at = 0; at < raw.size(); at += NumberWidth(type))
    {
        all.push_back(VariantInside::Number(type, WidenedNumber(type, &raw[at])));
    }
    return all;
}

// Converts item by item, to the types that stand in `places`: once, or over and over.
bool ConvertItems(std::string_view places, bool repeat, std::vector<Variant>& items)
{
    std::string_view left = places;
    for (Variant& item : items)
    {
        left = left.empty() && repeat ? places : left;
        const size_t length = CompleteType(left);
        Converted converted = length > 0 ? To(left.substr(0, length), item) : std::nullopt;
        if (!converted)
        {
            return false;
        }
        item = std::move(*converted);
        left.remove_prefix(length);
    }
    return left.empty() || items.empty();
}

Converted ToContainer(std::string_view type, const Variant& value)
{
    const std::string_view own = VariantInside::NodeSignature(value);
    const auto isDictionary = [](std::string_view one) { return one.starts_with("a{"); };
    if (own.empty() || own.front() != type.front() || isDictionary(own) != isDictionary(type))
    {
        return {};
    }
    std::vector<Variant> items = ItemsOf(value);
    const size_t before = items.size();
    std::string_view places = type.substr(1);
    if (type.front() == '(')
    {
        places.remove_suffix(1);
    }
    else if (isDictionary(type))
    {
        places = places.substr(1, places.size() - 2);
    }
    if (!ConvertItems(places, type.front() == 'a', items))
    {
        return {};
    }
    if (type.front() == 'a' && !isDictionary(type))
    {
        return Variant::MakeArray(places, std::move(items));
    }
    Variant made = VariantInside::Container(std::string(type), std::move(items));
    // Keys that have become equal would be lost.
    return VariantInside::Items(made).size() == before ? Converted(made) : std::nullopt;
}

Converted To(std::string_view type, const Variant& value)
{
    // A place of type `v` takes what there is.
    if (type == "v" || value.Signature() == type)
    {
        return value;
    }
    if (VariantInside::Type(value) == 'v')
    {
        return To(type, VariantInside::Items(value).front());
    }
    switch (type.front())
    {
        case 's':
        case 'o':
        case 'g':
            return ToText(type.front(), value);
        case 'a':
        case '(':
            return ToContainer(type, value);
        default:
            return NumberWidth(type.front()) > 0 ? ToNumber(type.front(), value) : std::nullopt;
    }
}

} // namespace

Variant Variant::As(std::string_view signature) const
{
    const std::string wanted(signature);
    if (!IsCompleteType(wanted))
    {
        throw std::invalid_argument("no complete D-Bus type: \"" + wanted + "\"");
    }
    Converted converted = HasValue() ? To(signature, *this) : std::nullopt;
    if (!converted)
    {
        Mismatch(wanted.c_str());
    }
    return *std::move(converted);
}

} // namespace bmcbus
