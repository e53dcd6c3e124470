// Values as other types: by signature, number by number, and only where no digit is lost.

#include <bmcbus/testing/value.hpp>

#include <cmath>
#include <concepts>
#include <limits>

namespace bmcbus::testing
{
namespace
{

// `from` as `To` when no digit is lost.
template <class To, class From>
bool Exact(From from, To& to)
{
    if constexpr (std::floating_point<To>)
    {
        to = static_cast<To>(from);
        return true;
    }
    else if constexpr (std::floating_point<From>)
    {
        // The limits of 64 bits are no doubles; their neighbours towards zero are.
        const double low = static_cast<double>(std::numeric_limits<To>::min());
        const double high = std::ldexp(1.0, std::numeric_limits<To>::digits);
        if (!(from >= low && from < high) || std::trunc(from) != from)
        {
            return false;
        }
        to = static_cast<To>(from);
        return true;
    }
    else
    {
        if (!std::in_range<To>(from))
        {
            return false;
        }
        to = static_cast<To>(from);
        return true;
    }
}

} // namespace

Value Value::As(std::string_view type) const
{
    try
    {
        return Converted(type);
    }
    catch (const std::invalid_argument& cause)
    {
        throw std::invalid_argument(Text() + " does not fit into " + std::string(type) + " (" +
                                    cause.what() + ")");
    }
}

Value Value::Converted(std::string_view type) const
{
    if (signature == type)
    {
        return *this;
    }
    Value result = Default(type); // refuses what is no type
    if (type == "v")
    {
        return Variant(*this);
    }
    if (signature == "v")
    {
        return Children().front().Converted(type);
    }
    if (std::holds_alternative<std::vector<Value>>(content))
    {
        return ConvertedContainer(type);
    }
    if (std::holds_alternative<std::string>(content) &&
        std::holds_alternative<std::string>(result.content))
    {
        result.content = content;
        return result;
    }
    return ConvertedNumber(type.front());
}

Value Value::ConvertedNumber(char type) const
{
    Value result = Default(std::string(1, type));
    const bool fits = std::visit(
        []<class From, class To>(const From& from, To& to)
        {
            if constexpr (std::is_arithmetic_v<From> && std::is_arithmetic_v<To> &&
                          !std::same_as<From, bool> && !std::same_as<To, bool>)
            {
                return Exact(from, to);
            }
            else
            {
                return false;
            }
        },
        content, result.content);
    if (!fits || type == 'h' || signature == "h")
    {
        throw std::invalid_argument(Body() + " is no " + type);
    }
    return result;
}

Value Value::ConvertedContainer(std::string_view type) const
{
    std::vector<std::string> types;
    std::vector<Value> converted;
    if (type.front() == 'a' && signature.front() == 'a')
    {
        const bool dictionary = type[1] == '{';
        if (dictionary != (signature[1] == '{') && !Children().empty())
        {
            throw std::invalid_argument("array against dictionary");
        }
        for (const Value& child : Children())
        {
            converted.push_back(dictionary ? child.ConvertedContainer(type.substr(1))
                                           : child.Converted(type.substr(1)));
        }
        return {std::string(type), std::move(converted)};
    }
    const bool sameKind =
        type.front() == signature.front() && (type.front() == '(' || type.front() == '{');
    if (sameKind)
    {
        types = SplitSignature(type.substr(1, type.size() - 2));
    }
    if (!sameKind || types.size() != Children().size())
    {
        throw std::invalid_argument(signature + " against " + std::string(type));
    }
    for (size_t i = 0; i < types.size(); ++i)
    {
        converted.push_back(Children()[i].Converted(types[i]));
    }
    return {std::string(type), std::move(converted)};
}

} // namespace bmcbus::testing
