// A second, simple copy of what an object must hold after each message.

#include "copy.hpp"

#include <algorithm>

namespace fuzz
{

const kit::Value& Copy::AsRead(const kit::Value& value) const
{
    const bool known = std::any_of(values.begin(), values.end(),
                                   [&](const auto& each)
                                   { return each.second.value.Signature() == value.Signature(); });
    return known ? value : first;
}

void Copy::Store(const kit::Value& map)
{
    std::map<std::string, kit::Value> read;
    for (const kit::Value& entry : map.Children())
    {
        read.emplace(entry.Children()[0].Get<std::string>(),
                     AsRead(entry.Children()[1].Children()[0]));
    }
    for (const auto& [name, value] : read)
    {
        const auto found = values.find(name);
        if (found != values.end() && found->second.value.Signature() == value.Signature())
        {
            found->second = {AsKept(value), true};
        }
        else
        {
            ++errors;
        }
    }
}

} // namespace fuzz
