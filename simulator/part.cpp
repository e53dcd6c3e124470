// What parts share: values are announced only when they change, and a signal's arguments are taken
// by name.

#include "part.hpp"

#include "descriptions.hpp"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace simulator
{

Part::Part(const std::string& name, const std::string& manager, const Setting& setting) :
    service({name}, {.loop = setting.loop}), ownManagers(setting.ownManagers), managers{manager}
{
}

void Part::Announce()
{
    for (const std::string& path : std::exchange(managers, {}))
    {
        service.Manage(path);
    }
    for (const std::string& path : service.Paths())
    {
        service.ObjectAt(path).EmitInterfacesAdded();
    }
}

Object& Part::Add(const std::string& path, const std::string& interface, const NamedValues& values)
{
    if (ownManagers && managers.empty())
    {
        service.Manage(path);
    }
    else if (ownManagers)
    {
        managers.push_back(path);
    }
    return service.AddObject(path, {Describe(interface)}, values);
}

void Part::Update(Object& object, const NamedValues& values)
{
    NamedValues changed;
    for (const auto& [name, value] : values)
    {
        const Value stored = object.Get(name);
        if (!(value.As(stored.Signature()) == stored))
        {
            changed.emplace_back(name, value);
        }
    }
    const bool announced = managers.empty();
    announced ? object.Set(changed) : object.SetQuietly(changed);
}

void Part::Emit(Object& object, const std::string& interface, const std::string& signal,
                const NamedValues& values)
{
    std::vector<Value> arguments;
    for (const auto& argument : Describe(interface).Signal(signal)->arguments)
    {
        const auto named =
            std::find_if(values.begin(), values.end(),
                         [&](const auto& value) { return value.first == argument.name; });
        if (named == values.end())
        {
            throw std::logic_error(signal + " has no value for " + argument.name);
        }
        arguments.push_back(named->second);
    }
    object.EmitValues(interface + "." + signal, arguments);
}

} // namespace simulator
