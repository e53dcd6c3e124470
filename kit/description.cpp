// Descriptions are read with pugixml and kept as plain data; what a service could not serve is
// refused here, with the file and the member, so that nothing after it has to check again.

#include <bmcbus/testing/description.hpp>
#include <bmcbus/testing/value.hpp>

#include <pugixml.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace bmcbus::testing
{
namespace
{

// Reads one document and knows what to call it in a failure.
class Parser
{
  public:
    explicit Parser(const std::string& name) : origin(name) {}

    std::vector<InterfaceDescription> Parse(std::string_view xml)
    {
        pugi::xml_document document;
        const pugi::xml_parse_result result = document.load_buffer(xml.data(), xml.size());
        if (!result)
        {
            Fail(std::string(result.description()) + " at byte " + std::to_string(result.offset));
        }
        std::vector<InterfaceDescription> interfaces;
        for (const pugi::xml_node& node : document.child("node").children("interface"))
        {
            interfaces.push_back(Interface(node));
        }
        if (interfaces.empty())
        {
            Fail("no interface in it");
        }
        return interfaces;
    }

  private:
    [[noreturn]] void Fail(const std::string& reason) const
    {
        throw std::runtime_error(origin + ": " + (where.empty() ? "" : where + ": ") + reason);
    }

    std::string Name(const pugi::xml_node& node) const
    {
        std::string name = node.attribute("name").as_string();
        if (name.empty())
        {
            Fail("a " + std::string(node.name()) + " without name");
        }
        return name;
    }

    std::string Type(const pugi::xml_node& node) const
    {
        std::string type = node.attribute("type").as_string();
        try
        {
            Value::Default(type);
        }
        catch (const std::invalid_argument& cause)
        {
            Fail(cause.what());
        }
        return type;
    }

    InterfaceDescription Interface(const pugi::xml_node& node)
    {
        InterfaceDescription interface;
        where.clear();
        interface.name = Name(node);
        const PropertyDescription::Emits usual = Emits(node, PropertyDescription::Emits::value);
        for (const pugi::xml_node& member : node.children())
        {
            const std::string kind = member.name();
            if (kind != "property" && kind != "method" && kind != "signal")
            {
                continue;
            }
            where = interface.name + "." + member.attribute("name").as_string();
            if (kind == "property")
            {
                interface.properties.push_back(Property(member, usual));
            }
            else if (kind == "method")
            {
                interface.methods.push_back(
                    {Name(member), Arguments(member, "in", "in"), Arguments(member, "out", "in")});
            }
            else
            {
                interface.signals.push_back({Name(member), Arguments(member, "out", "out")});
            }
        }
        std::ostringstream text;
        node.print(text, " ");
        interface.xml = text.str();
        return interface;
    }

    // What the element is annotated with.
    static PropertyDescription::Emits Emits(const pugi::xml_node& node,
                                            PropertyDescription::Emits otherwise)
    {
        for (const pugi::xml_node& note : node.children("annotation"))
        {
            const std::string key = note.attribute("name").as_string();
            if (key == "org.freedesktop.DBus.Property.EmitsChangedSignal")
            {
                const std::string value = note.attribute("value").as_string();
                return value == "true"          ? PropertyDescription::Emits::value
                       : value == "invalidates" ? PropertyDescription::Emits::invalidation
                                                : PropertyDescription::Emits::nothing;
            }
        }
        return otherwise;
    }

    PropertyDescription Property(const pugi::xml_node& node, PropertyDescription::Emits usual) const
    {
        PropertyDescription property{.name = Name(node), .type = Type(node)};
        const std::string access = node.attribute("access").as_string();
        if (access != "read" && access != "write" && access != "readwrite")
        {
            Fail("no such access: \"" + access + "\"");
        }
        property.readable = access != "write";
        property.writable = access != "read";
        property.emits = Emits(node, usual);
        return property;
    }

    std::vector<Argument> Arguments(const pugi::xml_node& node, const std::string& direction,
                                    const char* normal) const
    {
        std::vector<Argument> arguments;
        for (const pugi::xml_node& argument : node.children("arg"))
        {
            const std::string given = argument.attribute("direction").as_string(normal);
            if (given != "in" && given != "out")
            {
                Fail("no such direction: \"" + given + "\"");
            }
            if (given == direction)
            {
                arguments.push_back({argument.attribute("name").as_string(), Type(argument)});
            }
        }
        return arguments;
    }

    const std::string origin;
    std::string where;
};

struct Folders
{
    std::mutex mutex;
    std::vector<std::string> added;
};

Folders& TheFolders()
{
    static Folders folders;
    return folders;
}

std::vector<std::string> SearchPath()
{
    std::vector<std::string> path;
    {
        const std::lock_guard lock(TheFolders().mutex);
        path.assign(TheFolders().added.rbegin(), TheFolders().added.rend());
    }
    if (const char* list = std::getenv("BMCBUS_INTERFACE_PATH"))
    {
        std::istringstream folders(list);
        for (std::string folder; std::getline(folders, folder, ':');)
        {
            if (!folder.empty())
            {
                path.push_back(folder);
            }
        }
    }
    path.emplace_back(BMCBUS_INTERFACE_DIR);
    return path;
}

template <class Member>
const Member* Find(const std::vector<Member>& members, std::string_view name)
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const Member& member) { return member.name == name; });
    return found == members.end() ? nullptr : &*found;
}

} // namespace

const PropertyDescription* InterfaceDescription::Property(std::string_view member) const
{
    return Find(properties, member);
}

const MethodDescription* InterfaceDescription::Method(std::string_view member) const
{
    return Find(methods, member);
}

const SignalDescription* InterfaceDescription::Signal(std::string_view member) const
{
    return Find(signals, member);
}

std::vector<InterfaceDescription> ParseDescription(std::string_view xml, const std::string& origin)
{
    return Parser(origin).Parse(xml);
}

std::vector<InterfaceDescription> LoadDescription(const std::string& file)
{
    std::ifstream stream(file);
    std::ostringstream text;
    if (!stream || !(text << stream.rdbuf()))
    {
        throw std::runtime_error(file + ": cannot be read");
    }
    return ParseDescription(text.str(), file);
}

void AddInterfaceFolder(const std::string& folder)
{
    const std::lock_guard lock(TheFolders().mutex);
    TheFolders().added.push_back(folder);
}

InterfaceDescription FindInterface(const std::string& name)
{
    std::string nested = name;
    std::replace(nested.begin(), nested.end(), '.', '/');
    std::string searched;
    for (const std::string& folder : SearchPath())
    {
        const std::filesystem::path base(folder);
        for (const std::filesystem::path& file :
             {base / (name + ".xml"), base / nested / (name + ".xml")})
        {
            std::error_code ignored;
            if (!std::filesystem::exists(file, ignored))
            {
                continue;
            }
            for (InterfaceDescription& interface : LoadDescription(file))
            {
                if (interface.name == name)
                {
                    return std::move(interface);
                }
            }
        }
        searched += " " + folder;
    }
    throw std::runtime_error("no description of " + name + " in" + searched);
}

} // namespace bmcbus::testing
