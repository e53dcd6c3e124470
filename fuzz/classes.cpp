// What the generated classes keep of a value, worked out a second time and simply: of equal keys
// in a map the first.

#include "classes.hpp"

#include <algorithm>
#include <bit>
#include <map>

namespace fuzz
{

kit::Value AsKept(const kit::Value& value)
{
    const std::string& type = value.Signature();
    if (!type.starts_with("a{s"))
    {
        return value;
    }
    std::map<std::string, const kit::Value*> kept;
    for (const kit::Value& entry : value.Children())
    {
        kept.emplace(entry.Children()[0].Get<std::string>(), &entry.Children()[1]);
    }
    std::vector<std::pair<kit::Value, kit::Value>> entries;
    entries.reserve(kept.size());
    for (const auto& [key, mapped] : kept)
    {
        entries.emplace_back(key, *mapped);
    }
    return kit::Value::Dictionary("s", type.substr(3, type.size() - 4), std::move(entries));
}

bool Same(const kit::Value& a, const kit::Value& b)
{
    const std::string& type = a.Signature();
    if (type != b.Signature())
    {
        return false;
    }
    if (type == "d")
    {
        return std::bit_cast<uint64_t>(a.Get<double>()) == std::bit_cast<uint64_t>(b.Get<double>());
    }
    if (type.front() != 'a' && type.front() != '(')
    {
        return a == b;
    }
    return std::equal(a.Children().begin(), a.Children().end(), b.Children().begin(),
                      b.Children().end(), Same);
}

} // namespace fuzz
