// Values of every type, all different.

#include "samples.hpp"

namespace every_member
{
namespace
{

template <class T>
T Number(unsigned int index)
{
    // The upper byte is taken, too, and signed types are negative every other time.
    const T value = static_cast<T>((T{1} << (8 * sizeof(T) - 3)) + static_cast<T>(index));
    return std::is_signed_v<T> && index % 2 == 1 ? static_cast<T>(-value) : value;
}

} // namespace

kit::Value Sample(const std::string& type, unsigned int index, unsigned int round)
{
    const unsigned int number = index + 1000 * round;
    switch (type.at(0))
    {
        case 'b':
            return ((index >> round) & 1U) != 0;
        case 'y':
            return static_cast<uint8_t>(1 + (index + 97 * round) % 255);
        case 'n':
            return Number<int16_t>(number);
        case 'q':
            return Number<uint16_t>(number);
        case 'i':
            return Number<int32_t>(number);
        case 'u':
            return Number<uint32_t>(number);
        case 'x':
            return Number<int64_t>(number);
        case 't':
            return Number<uint64_t>(number);
        case 'd':
            return number + 0.25;
        case 's':
            // Of one length, so that the order of keys is that of the numbers.
            return "text " + std::to_string(round) + "/" + std::to_string(1000 + index) + " \u00e9";
        case '(':
        {
            Values fields;
            for (const std::string& field : kit::SplitSignature(type.substr(1, type.size() - 2)))
            {
                fields.push_back(Sample(field, index++, round));
            }
            return kit::Value::Struct(fields);
        }
        default:
            break;
    }
    if (type.starts_with("a{"))
    {
        const auto parts = kit::SplitSignature(type.substr(2, type.size() - 3));
        return kit::Value::Dictionary(
            parts[0], parts[1],
            {{Sample(parts[0], index, round), Sample(parts[1], index, round)},
             {Sample(parts[0], index + 1, round), Sample(parts[1], index + 7, round)}});
    }
    const std::string element = type.substr(1);
    return kit::Value::Array(element,
                             {Sample(element, index, round), Sample(element, index + 1, round),
                              Sample(element, index + 101, round)});
}

Values Samples(const std::vector<std::string>& types, unsigned int index)
{
    Values values;
    for (const std::string& type : types)
    {
        values.push_back(Sample(type, index++));
    }
    return values;
}

kit::NamedValues Samples(const Members& members, unsigned int round)
{
    kit::NamedValues values;
    for (unsigned int index = 1; const auto& member : members)
    {
        values.emplace_back(member->name, Sample(member->signature, index++, round));
    }
    return values;
}

} // namespace every_member
