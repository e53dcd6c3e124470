// The table is made anew for each question from what is connected right now; nothing has to be kept
// in step.

#include "mapper.hpp"

#include <map>
#include <set>

namespace simulator
{

using bmcbus::testing::Call;
using bmcbus::testing::MapperTable;

namespace
{

using Interfaces = std::map<std::string, std::set<std::string>>; // by path

// Introspection finds a node at the path and everywhere above it, with or without an object.
void AddNodes(const std::string& path, Interfaces& found)
{
    const std::set<std::string> standard = {"org.freedesktop.DBus.Introspectable",
                                            "org.freedesktop.DBus.Peer",
                                            "org.freedesktop.DBus.Properties"};
    for (size_t end = 0; end != std::string::npos; end = path.find('/', end + 1))
    {
        found[end == 0 ? "/" : path.substr(0, end)].insert(standard.begin(), standard.end());
    }
    found[path].insert(standard.begin(), standard.end());
}

// What the real mapper learns of a service by introspection.
Interfaces Introspect(bmcbus::testing::Service& service)
{
    Interfaces found;
    for (const std::string& path : service.Paths())
    {
        AddNodes(path, found);
        for (const std::string& interface : service.ObjectAt(path).Interfaces())
        {
            found[path].insert(interface);
        }
    }
    for (const std::string& manager : service.Managers())
    {
        AddNodes(manager, found);
        found[manager].insert("org.freedesktop.DBus.ObjectManager");
    }
    return found;
}

} // namespace

Mapper::Mapper(std::vector<bmcbus::testing::Service*> known, sd_event* loop) :
    services(std::move(known)), service({bmcbus::testing::mapperName}, {.loop = loop})
{
    const auto description = bmcbus::testing::MapperInterface();
    auto& object = service.AddObject(bmcbus::testing::mapperPath, {description});
    for (const auto& method : description.methods)
    {
        object.OnCall(method.name, [this](const Call& call) { return Table().Answer(call); });
    }
}

MapperTable Mapper::Table() const
{
    MapperTable table;
    for (auto* known : services)
    {
        if (!known->Connected())
        {
            continue;
        }
        for (const auto& [path, interfaces] : Introspect(*known))
        {
            table.Add(path, known->Names().front(), {interfaces.begin(), interfaces.end()});
        }
    }
    return table;
}

} // namespace simulator
