// How a call is answered when nothing intercepts it: the standard interfaces first, then the
// methods of the object's own.

#include "service_link.hpp"

#include <set>

namespace bmcbus::testing
{
namespace
{

constexpr const char* standardInterfaces = R"( <interface name="org.freedesktop.DBus.Peer">
  <method name="Ping"/>
  <method name="GetMachineId">
   <arg type="s" name="machine_uuid" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect">
   <arg name="xml_data" type="s" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg name="interface_name" direction="in" type="s"/>
   <arg name="property_name" direction="in" type="s"/>
   <arg name="value" direction="out" type="v"/>
  </method>
  <method name="GetAll">
   <arg name="interface_name" direction="in" type="s"/>
   <arg name="props" direction="out" type="a{sv}"/>
  </method>
  <method name="Set">
   <arg name="interface_name" direction="in" type="s"/>
   <arg name="property_name" direction="in" type="s"/>
   <arg name="value" direction="in" type="v"/>
  </method>
  <signal name="PropertiesChanged">
   <arg type="s" name="interface_name"/>
   <arg type="a{sv}" name="changed_properties"/>
   <arg type="as" name="invalidated_properties"/>
  </signal>
 </interface>
)";

constexpr const char* managerDescription =
    R"( <interface name="org.freedesktop.DBus.ObjectManager">
  <method name="GetManagedObjects">
   <arg type="a{oa{sa{sv}}}" name="object_paths_interfaces_and_properties" direction="out"/>
  </method>
  <signal name="InterfacesAdded">
   <arg type="o" name="object_path"/>
   <arg type="a{sa{sv}}" name="interfaces_and_properties"/>
  </signal>
  <signal name="InterfacesRemoved">
   <arg type="o" name="object_path"/>
   <arg type="as" name="interfaces"/>
  </signal>
 </interface>
)";

} // namespace

std::string CallAnswer::Where() const
{
    return call.path + " " + (call.interface.empty() ? "" : call.interface + ".") + call.member;
}

std::string CallAnswer::Text(size_t index) const
{
    return call.arguments.at(index).Get<std::string>();
}

void CallAnswer::Expect(const std::string& signature) const
{
    if (const std::string got = SignatureOf(call.arguments); got != signature)
    {
        throw CallError(SD_BUS_ERROR_INVALID_ARGS,
                        Where() + " takes '" + signature + "', not '" + got + "'");
    }
}

Object& CallAnswer::Target()
{
    const auto found = service.objects.find(call.path);
    if (found == service.objects.end())
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_OBJECT, "Unknown object '" + call.path + "'.");
    }
    return *found->second;
}

Object::Slot& CallAnswer::Interface(const std::string& name)
{
    Object& object = Target();
    const auto found = object.slots.find(name);
    if (found == object.slots.end())
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_INTERFACE,
                        "Unknown interface '" + name + "' at " + call.path + ".");
    }
    return found->second;
}

std::vector<Value> CallAnswer::Make()
{
    if (call.interface == propertiesInterface)
    {
        return Properties();
    }
    if (call.interface == introspectableInterface && call.member == "Introspect")
    {
        return Introspect();
    }
    if (call.interface == managerInterface && call.member == "GetManagedObjects")
    {
        return ManagedObjects();
    }
    return Method();
}

std::vector<Value> CallAnswer::Properties()
{
    if (call.member == "Get")
    {
        return GetProperty();
    }
    if (call.member == "Set")
    {
        return SetProperty();
    }
    if (call.member == "GetAll")
    {
        return GetAllProperties();
    }
    throw CallError(SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method " + Where() + ".");
}

std::vector<Value> CallAnswer::GetProperty()
{
    Expect("ss");
    const Object::Slot& slot = Interface(Text(0));
    const PropertyDescription* property = slot.description.Property(Text(1));
    if (property == nullptr || !property->readable)
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_PROPERTY, "Unknown property '" + Text(1) + "'.");
    }
    return {Value::Variant(slot.values.at(property->name))};
}

std::vector<Value> CallAnswer::SetProperty()
{
    Expect("ssv");
    Object::Slot& slot = Interface(Text(0));
    const std::string name = Text(1);
    const PropertyDescription* property = slot.description.Property(name);
    if (property == nullptr)
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_PROPERTY, "Unknown property '" + name + "'.");
    }
    if (!property->writable)
    {
        throw CallError(SD_BUS_ERROR_PROPERTY_READ_ONLY, "Property '" + name + "' is read-only.");
    }
    const Value value = call.arguments.at(2).Children().front();
    if (value.Signature() != property->type)
    {
        throw CallError(SD_BUS_ERROR_INVALID_ARGS, "Property '" + name + "' takes '" +
                                                       property->type + "', not '" +
                                                       value.Signature() + "'.");
    }
    if (const auto hook = slot.hooks.find(name); hook != slot.hooks.end() && hook->second)
    {
        const WriteHook sees = hook->second; // may be replaced while it runs
        sees(value);
    }
    // The hook may have removed the object.
    Target().Set(Text(0) + "." + name, value);
    return {};
}

std::vector<Value> CallAnswer::GetAllProperties()
{
    Expect("s");
    if (!Text(0).empty())
    {
        const Object::Slot& slot = Interface(Text(0));
        return {AsPropertyMap(Target().Readable(slot))};
    }
    NamedValues all;
    for (const auto& [name, slot] : Target().slots)
    {
        for (auto& value : Target().Readable(slot))
        {
            all.push_back(std::move(value));
        }
    }
    return {AsPropertyMap(all)};
}

std::vector<Value> CallAnswer::ManagedObjects()
{
    if (!service.managers.contains(call.path))
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_METHOD, "No object manager at " + call.path + ".");
    }
    std::vector<std::pair<Value, Value>> managed;
    for (const auto& [path, object] : service.objects)
    {
        if (service.ManagerAbove(path) == call.path)
        {
            managed.emplace_back(Path{path}, object->AllInterfaces());
        }
    }
    return {Value::Dictionary("o", "a{sa{sv}}", std::move(managed))};
}

std::vector<Value> CallAnswer::Introspect()
{
    const auto object = service.objects.find(call.path);
    std::string interfaces;
    if (object != service.objects.end())
    {
        for (const auto& [name, slot] : object->second->slots)
        {
            interfaces += slot.description.xml;
        }
    }
    interfaces += service.managers.contains(call.path) ? managerDescription : "";
    const std::string below = call.path == "/" ? "/" : call.path + "/";
    std::set<std::string> children;
    for (const auto& [path, other] : service.objects)
    {
        if (path.starts_with(below) && path != call.path)
        {
            const std::string rest = path.substr(below.size());
            children.insert(rest.substr(0, rest.find('/')));
        }
    }
    if (interfaces.empty() && children.empty())
    {
        Target(); // refuses, unless it has no interface but these:
    }
    interfaces.insert(0, standardInterfaces);
    std::string xml =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection "
        "1.0//EN\"\n"
        "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n<node>\n" +
        interfaces;
    for (const std::string& child : children)
    {
        xml += " <node name=\"" + child + "\"/>\n";
    }
    return {xml + "</node>\n"};
}

std::vector<Value> CallAnswer::Method()
{
    Object& object = Target();
    const MethodDescription* method = nullptr;
    CallHandler handler;
    for (const auto& [name, slot] : object.slots)
    {
        if (call.interface.empty() || call.interface == name)
        {
            method = method == nullptr ? slot.description.Method(call.member) : method;
            if (const auto found = slot.handlers.find(call.member);
                !handler && found != slot.handlers.end())
            {
                handler = found->second;
            }
        }
    }
    if (method == nullptr)
    {
        throw CallError(SD_BUS_ERROR_UNKNOWN_METHOD, "Unknown method " + Where() + ".");
    }
    std::string in;
    for (const Argument& argument : method->in)
    {
        in += argument.type;
    }
    Expect(in);
    const std::vector<Argument> out = method->out; // the handler may remove the interface
    std::vector<Value> answer;
    if (!handler)
    {
        for (const Argument& argument : out)
        {
            answer.push_back(Value::Default(argument.type));
        }
        return answer;
    }
    const std::vector<Value> made = handler(call);
    if (made.size() != out.size())
    {
        throw std::invalid_argument("handler of " + Where() + " gave " +
                                    std::to_string(made.size()) + " values instead of " +
                                    std::to_string(out.size()));
    }
    for (size_t i = 0; i < out.size(); ++i)
    {
        answer.push_back(made[i].As(out[i].type));
    }
    return answer;
}

} // namespace bmcbus::testing
