// A total order of values: any two of them compare, NaN included.

#include "bus/variant_inside.hpp"

#include <cmath>
#include <compare>

namespace bmcbus
{
namespace
{

std::weak_ordering Ordered(double a, double b)
{
    if (std::isnan(a) || std::isnan(b))
    {
        return std::isnan(a) <=> std::isnan(b);
    }
    return a < b ? std::weak_ordering::less
                 : (b < a ? std::weak_ordering::greater : std::weak_ordering::equivalent);
}

std::weak_ordering OrderedNumbers(char type, uint64_t a, uint64_t b)
{
    switch (type)
    {
        case 'd':
            return Ordered(std::bit_cast<double>(a), std::bit_cast<double>(b));
        case 'n':
        case 'i':
        case 'x':
            return static_cast<int64_t>(a) <=> static_cast<int64_t>(b);
        default:
            return a <=> b;
    }
}

std::weak_ordering OrderedArrays(char type, std::span<const std::byte> a,
                                 std::span<const std::byte> b)
{
    const size_t width = NumberWidth(type);
    for (size_t at = 0; at < a.size() && at < b.size(); at += width)
    {
        const std::weak_ordering order =
            OrderedNumbers(type, WidenedNumber(type, &a[at]), WidenedNumber(type, &b[at]));
        if (std::is_neq(order))
        {
            return order;
        }
    }
    return a.size() <=> b.size();
}

} // namespace

std::weak_ordering Variant::Compare(const Variant& a, const Variant& b) noexcept
{
    if (a.type_ != b.type_)
    {
        return a.type_ <=> b.type_;
    }
    if (a.IsText())
    {
        return a.text_ <=> b.text_;
    }
    if (!a.IsNode())
    {
        return OrderedNumbers(a.type_, a.bits_, b.bits_);
    }
    if (a.node_ == b.node_)
    {
        return std::weak_ordering::equivalent;
    }
    if (const auto types = a.node_->signature <=> b.node_->signature; std::is_neq(types))
    {
        return types;
    }
    if (a.type_ == 'h')
    {
        return a.node_->descriptor <=> b.node_->descriptor;
    }
    if (!a.node_->numbers.empty() || !b.node_->numbers.empty())
    {
        return OrderedArrays(a.node_->signature[1], a.node_->numbers, b.node_->numbers);
    }
    const std::span<const Variant> these = a.Items();
    const std::span<const Variant> those = b.Items();
    for (size_t i = 0; i < these.size() && i < those.size(); ++i)
    {
        if (const auto order = Compare(these[i], those[i]); std::is_neq(order))
        {
            return order;
        }
    }
    return these.size() <=> those.size();
}

} // namespace bmcbus
