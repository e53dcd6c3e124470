// The mapper is a table from paths to services, and four questions that each walk it once.

#include <bmcbus/testing/fake_mapper.hpp>

#include <algorithm>

namespace bmcbus::testing
{
namespace
{

constexpr const char* description = R"(<node>
 <interface name="xyz.openbmc_project.ObjectMapper">
  <method name="GetAncestors">
   <arg name="path" type="s" direction="in"/>
   <arg name="interfaces" type="as" direction="in"/>
   <arg name="objects" type="a{sa{sas}}" direction="out"/>
  </method>
  <method name="GetObject">
   <arg name="path" type="s" direction="in"/>
   <arg name="interfaces" type="as" direction="in"/>
   <arg name="services" type="a{sas}" direction="out"/>
  </method>
  <method name="GetSubTree">
   <arg name="path" type="s" direction="in"/>
   <arg name="depth" type="i" direction="in"/>
   <arg name="interfaces" type="as" direction="in"/>
   <arg name="objects" type="a{sa{sas}}" direction="out"/>
  </method>
  <method name="GetSubTreePaths">
   <arg name="path" type="s" direction="in"/>
   <arg name="depth" type="i" direction="in"/>
   <arg name="interfaces" type="as" direction="in"/>
   <arg name="paths" type="as" direction="out"/>
  </method>
 </interface>
</node>)";

[[noreturn]] void NotFound()
{
    throw CallError("xyz.openbmc_project.Common.Error.ResourceNotFound",
                    "The resource is not found.");
}

// What every path below `path` begins with.
std::string Prefix(const std::string& path)
{
    return path.ends_with('/') ? path : path + "/";
}

} // namespace

InterfaceDescription MapperInterface()
{
    return ParseDescription(description, mapperName).front();
}

void MapperTable::Add(const std::string& path, const std::string& service,
                      const std::vector<std::string>& interfaces)
{
    std::vector<std::string>& known = table[path][service];
    known.insert(known.end(), interfaces.begin(), interfaces.end());
}

void MapperTable::Remove(const std::string& service, const std::string& path)
{
    for (auto& [each, services] : table)
    {
        if (path.empty() || path == each)
        {
            services.erase(service);
        }
    }
    std::erase_if(table, [](const auto& entry) { return entry.second.empty(); });
}

MapperTable::Services MapperTable::Matching(const Services& services, const Wanted& wanted)
{
    Services matching;
    for (const auto& [service, interfaces] : services)
    {
        const bool matches =
            wanted.empty() || std::find_first_of(interfaces.begin(), interfaces.end(),
                                                 wanted.begin(), wanted.end()) != interfaces.end();
        if (matches)
        {
            matching.emplace(service, interfaces);
        }
    }
    return matching;
}

void MapperTable::Require(const std::string& path) const
{
    // A path without an object of its own is known when there is one below.
    const std::string prefix = Prefix(path);
    const bool known = std::any_of(
        table.begin(), table.end(),
        [&](const auto& entry) { return entry.first == path || entry.first.starts_with(prefix); });
    if (!known && path != "/")
    {
        NotFound();
    }
}

Value MapperTable::Object(const std::string& path, const Wanted& wanted) const
{
    const auto found = table.find(path);
    const Services services = found == table.end() ? Services() : Matching(found->second, wanted);
    if (services.empty())
    {
        NotFound();
    }
    return services;
}

std::map<std::string, MapperTable::Services> MapperTable::Below(const std::string& path, int depth,
                                                                const Wanted& wanted) const
{
    Require(path);
    const std::string prefix = Prefix(path);
    std::map<std::string, Services> found;
    for (const auto& [each, services] : table)
    {
        if (!each.starts_with(prefix) || each == path)
        {
            continue;
        }
        const auto levels =
            1 +
            std::count(each.begin() + static_cast<std::ptrdiff_t>(prefix.size()), each.end(), '/');
        Services matching = Matching(services, wanted);
        if (!matching.empty() && (depth <= 0 || levels <= depth))
        {
            found.emplace(each, std::move(matching));
        }
    }
    return found;
}

std::map<std::string, MapperTable::Services> MapperTable::Above(const std::string& path,
                                                                const Wanted& wanted) const
{
    Require(path);
    std::map<std::string, Services> found;
    for (const auto& [each, services] : table)
    {
        Services matching = Matching(services, wanted);
        if (!matching.empty() && each != path && path.starts_with(Prefix(each)))
        {
            found.emplace(each, std::move(matching));
        }
    }
    return found;
}

std::vector<Value> MapperTable::Answer(const Call& call) const
{
    auto path = call.arguments.at(0).Get<std::string>();
    const auto wanted = call.arguments.back().Get<Wanted>();
    if (call.member == "GetObject")
    {
        return {Object(path, wanted)};
    }
    if (path.size() > 1 && path.ends_with('/'))
    {
        path.pop_back(); // one is allowed in a question for what is around a path
    }
    if (call.member == "GetAncestors")
    {
        return {Above(path, wanted)};
    }
    const std::map<std::string, Services> found =
        Below(path, call.arguments.at(1).Get<int>(), wanted);
    if (call.member == "GetSubTree")
    {
        return {found};
    }
    std::vector<std::string> paths;
    paths.reserve(found.size());
    for (const auto& [each, services] : found)
    {
        paths.push_back(each);
    }
    return {paths};
}

FakeMapper::FakeMapper() : FakeService({mapperName}), table(std::make_shared<MapperTable>())
{
    bmcbus::testing::Object& object = AddObject(mapperPath, {MapperInterface()});
    for (const MethodDescription& method : MapperInterface().methods)
    {
        // The service's thread outlives this part of the object.
        object.OnCall(method.name,
                      [shared = table](const Call& call) { return shared->Answer(call); });
    }
}

void FakeMapper::Add(const std::string& path, const std::string& service,
                     const std::vector<std::string>& interfaces)
{
    Run([&] { table->Add(path, service, interfaces); });
    if (Connected())
    {
        EmitRaw(mapperPath, std::string(mapperName) + ".Private", "IntrospectionComplete",
                {service});
    }
}

void FakeMapper::Remove(const std::string& service, const std::string& path)
{
    Run([&] { table->Remove(service, path); });
}

} // namespace bmcbus::testing
