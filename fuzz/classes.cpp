#include "classes.hpp"

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
    for (const auto& [key, mapped] : kept)
    {
        entries.emplace_back(key, *mapped);
    }
    return kit::Value::Dictionary("s", type.substr(3, type.size() - 4), std::move(entries));
}

} // namespace fuzz
