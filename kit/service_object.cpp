// An object is its interfaces' descriptions with a value for each property. What is stored is
// checked first as a whole; what is announced follows from the description.

#include "service_link.hpp"

#include <algorithm>

namespace bmcbus::testing
{

Object::Object(Service& owner, std::string where) : service(owner), path(std::move(where)) {}

Object::~Object() = default;

void Object::Refuse(const std::string& what) const
{
    const std::string name = service.names.empty() ? "service" : service.names.front();
    throw std::invalid_argument(name + " " + path + ": " + what);
}

// --- names --------------------------------------------------------------------------------------

template <class Has>
Object::Found Object::Find(const std::string& name, const char* kind, Has has) const
{
    const size_t dot = name.rfind('.');
    const std::string interface = dot == std::string::npos ? "" : name.substr(0, dot);
    Found found{.member = dot == std::string::npos ? name : name.substr(dot + 1)};
    for (auto& [slotName, slot] : slots)
    {
        if ((!interface.empty() && interface != slotName) ||
            has(slot.description, found.member) == nullptr)
        {
            continue;
        }
        if (found.slot != nullptr)
        {
            Refuse(std::string("more than one interface has the ") + kind + " " + name);
        }
        found.slot = &slot;
    }
    if (found.slot == nullptr)
    {
        Refuse(std::string("no interface has the ") + kind + " " + name);
    }
    return found;
}

Object::Found Object::FindProperty(const std::string& name) const
{
    return Find(name, "property",
                [](const InterfaceDescription& interface, const std::string& member)
                { return interface.Property(member); });
}

std::vector<std::string> Object::Interfaces() const
{
    return service.OnThread(
        [this]
        {
            std::vector<std::string> names;
            for (const auto& [name, slot] : slots)
            {
                names.push_back(name);
            }
            return names;
        });
}

// --- values -------------------------------------------------------------------------------------

Object::Slot& Object::Insert(InterfaceDescription description, const NamedValues& values)
{
    const std::string name = description.name;
    if (slots.contains(name))
    {
        Refuse("it has " + name + " already");
    }
    Slot slot;
    slot.description = std::move(description);
    for (const PropertyDescription& property : slot.description.properties)
    {
        slot.values.emplace(property.name, Value::Default(property.type));
    }
    for (const auto& [property, value] : values)
    {
        const auto stored = slot.values.find(property);
        if (stored == slot.values.end())
        {
            Refuse(std::string(name).append(" has no property ").append(property));
        }
        stored->second = value.As(stored->second.Signature());
        stored->second.RequireTravels();
    }
    return slots.emplace(name, std::move(slot)).first->second;
}

std::map<std::string, NamedValues> Object::Store(const NamedValues& values)
{
    // All are checked before the first is stored.
    std::map<std::string, NamedValues> changes;
    for (const auto& [name, value] : values)
    {
        const Found found = FindProperty(name);
        const Value& stored = found.slot->values.at(found.member);
        try
        {
            Value fresh = value.As(stored.Signature());
            fresh.RequireTravels();
            changes[found.slot->description.name].emplace_back(found.member, std::move(fresh));
        }
        catch (const std::invalid_argument& cause)
        {
            Refuse("property " + name + ": " + cause.what());
        }
    }
    for (const auto& [interface, changed] : changes)
    {
        for (const auto& [name, value] : changed)
        {
            slots.at(interface).values.insert_or_assign(name, value);
        }
    }
    return changes;
}

void Object::Announce(const std::map<std::string, NamedValues>& changes)
{
    for (const auto& [interface, values] : changes)
    {
        NamedValues changed;
        std::vector<std::string> invalidated;
        for (const auto& [name, value] : values)
        {
            const PropertyDescription* property = slots.at(interface).description.Property(name);
            if (property->emits == PropertyDescription::Emits::value && property->readable)
            {
                changed.emplace_back(name, value);
            }
            else if (property->emits == PropertyDescription::Emits::invalidation)
            {
                invalidated.push_back(name);
            }
        }
        if ((!changed.empty() || !invalidated.empty()) && service.link->Up())
        {
            EmitPropertiesChanged(interface, changed, invalidated);
        }
    }
}

void Object::Set(const std::string& property, const Value& value)
{
    Set(NamedValues{{property, value}});
}

void Object::Set(const NamedValues& values)
{
    service.OnThread([&] { Announce(Store(values)); });
}

void Object::Invalidate(const NamedValues& values)
{
    service.OnThread(
        [&]
        {
            for (const auto& [interface, changed] : Store(values))
            {
                std::vector<std::string> names;
                for (const auto& [name, value] : changed)
                {
                    names.push_back(name);
                }
                EmitPropertiesChanged(interface, {}, names);
            }
        });
}

void Object::SetQuietly(const NamedValues& values)
{
    service.OnThread([&] { Store(values); });
}

Value Object::Get(const std::string& property) const
{
    return service.OnThread(
        [&]
        {
            const Found found = FindProperty(property);
            return found.slot->values.at(found.member);
        });
}

NamedValues Object::Readable(const Slot& slot) const
{
    NamedValues values;
    for (const PropertyDescription& property : slot.description.properties)
    {
        if (property.readable)
        {
            values.emplace_back(property.name, slot.values.at(property.name));
        }
    }
    return values;
}

Value Object::AllInterfaces(const std::string& only) const
{
    std::vector<std::pair<Value, Value>> interfaces;
    for (const auto& [name, slot] : slots)
    {
        if (only.empty() || only == name)
        {
            interfaces.emplace_back(name, AsPropertyMap(Readable(slot)));
        }
    }
    return Value::Dictionary("s", "a{sv}", std::move(interfaces));
}

// --- hooks --------------------------------------------------------------------------------------

void Object::OnWrite(const std::string& property, WriteHook hook)
{
    service.OnThread(
        [&]
        {
            const Found found = FindProperty(property);
            found.slot->hooks[found.member] = std::move(hook);
        });
}

void Object::OnCall(const std::string& method, CallHandler handler)
{
    service.OnThread(
        [&]
        {
            const Found found =
                Find(method, "method",
                     [](const InterfaceDescription& interface, const std::string& member)
                     { return interface.Method(member); });
            found.slot->handlers[found.member] = std::move(handler);
        });
}

bool Object::Answers(const std::string& method) const
{
    return std::any_of(slots.begin(), slots.end(),
                       [&](const auto& slot)
                       { return slot.second.description.Method(method) != nullptr; });
}

// --- signals ------------------------------------------------------------------------------------

void Object::EmitValues(const std::string& signal, const std::vector<Value>& arguments)
{
    service.OnThread(
        [&]
        {
            const Found found =
                Find(signal, "signal",
                     [](const InterfaceDescription& interface, const std::string& member)
                     { return interface.Signal(member); });
            const std::vector<Argument>& declared =
                found.slot->description.Signal(found.member)->arguments;
            if (declared.size() != arguments.size())
            {
                Refuse("signal " + signal + " has " + std::to_string(declared.size()) +
                       " arguments, not " + std::to_string(arguments.size()));
            }
            std::vector<Value> converted;
            for (size_t i = 0; i < declared.size(); ++i)
            {
                converted.push_back(arguments[i].As(declared[i].type));
            }
            EmitRaw(found.slot->description.name, found.member, converted);
        });
}

void Object::EmitRaw(const std::string& interface, const std::string& member,
                     const std::vector<Value>& arguments)
{
    service.EmitRaw(path, interface, member, arguments);
}

void Object::EmitPropertiesChanged(const std::string& interface, const NamedValues& changed,
                                   const std::vector<std::string>& invalidated)
{
    EmitRaw(propertiesInterface, "PropertiesChanged",
            {interface, AsPropertyMap(changed), invalidated});
}

std::string Object::Manager() const
{
    return service.managers.contains(path) ? path : service.ManagerAbove(path);
}

void Object::SendFromManager(const char* signal, const Value& interfaces)
{
    const std::string manager = Manager();
    if (!manager.empty() && service.link->Up())
    {
        service.EmitRaw(manager, managerInterface, signal, {Path{path}, interfaces});
    }
}

void Object::SendAdded(const Value& interfaces)
{
    SendFromManager("InterfacesAdded", interfaces);
}

void Object::SendRemoved(const std::vector<std::string>& interfaces)
{
    SendFromManager("InterfacesRemoved", interfaces);
}

void Object::RequireManager() const
{
    if (Manager().empty())
    {
        Refuse("no object manager at or above it announces it, see Service::Manage()");
    }
}

void Object::EmitInterfacesAdded()
{
    service.OnThread(
        [&]
        {
            RequireManager();
            SendAdded(AllInterfaces());
        });
}

void Object::EmitInterfacesRemoved(const std::vector<std::string>& interfaces)
{
    service.OnThread(
        [&]
        {
            RequireManager();
            SendRemoved(interfaces);
        });
}

void Object::AddInterface(const std::string& interface, const NamedValues& values)
{
    AddInterface(FindInterface(interface), values);
}

void Object::AddInterface(InterfaceDescription description, const NamedValues& values)
{
    service.OnThread(
        [&]
        {
            const Slot& slot = Insert(std::move(description), values);
            SendAdded(AllInterfaces(slot.description.name));
        });
}

void Object::RemoveInterface(const std::string& interface)
{
    service.OnThread(
        [&]
        {
            if (slots.erase(interface) == 0)
            {
                Refuse("it has no interface " + interface);
            }
            SendRemoved({interface});
        });
}

} // namespace bmcbus::testing
