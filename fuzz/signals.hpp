#pragma once

// One of the three signals of a cached proxy, in any shape, to objects of two classes.

#include "copy.hpp"
#include "wire.hpp"

namespace fuzz
{

// A signal: its name, arguments that are mostly right, and what they should do.
struct Kind
{
    const char* interface;
    const char* member;
    std::vector<kit::Value> (*arguments)(Input& input, const std::string& own);
    bool (*apply)(Copy& copy, const std::vector<kit::Value>& arguments); // false: cannot be read
};

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* managerInterface = "org.freedesktop.DBus.ObjectManager";

// True when the first arguments are of these types; what follows is not looked at.
bool Begin(const std::vector<kit::Value>& arguments, const std::vector<std::string>& types);

// A signal that is as it should be.
template <class Class>
void Change(Tested<Class>& tested)
{
    const Member<Class>& member = About<Class>::members.front();
    const kit::Value changed = kit::AsPropertyMap({{member.name, member.initial}});
    TheWire().Signal(tested.path, propertiesInterface, "PropertiesChanged",
                     {About<Class>::interface, changed});
    tested.expected.Store(changed);
    tested.expected.ready = true;
    tested.expected.Count(true);
    tested.Compare();
}

template <class Class>
void Round(Input& input, const Kind& kind)
{
    Tested<Class> tested("");
    // Nobody tells the object who its service is.
    TheWire().Serve([](sd_bus_message*) {});
    while (input.Left())
    {
        const auto arguments = input.Bent(kind.arguments(input, About<Class>::interface));
        if (input.OnceIn(4))
        {
            TheWire().Damaged(input, tested.path, kind.interface, kind.member, arguments);
            tested.Adopt();
            Change(tested);
        }
        else
        {
            TheWire().Signal(tested.path, kind.interface, kind.member, arguments);
            tested.expected.Count(kind.apply(tested.expected, arguments));
            tested.Compare();
        }
    }
    // Whatever came before, the connection and the object go on working.
    Change(tested);
}

inline int Run(const uint8_t* data, size_t size, const Kind& kind)
{
    return ForOneOf(data, size,
                    [&](Input& input, auto class_)
                    { Round<typename decltype(class_)::type>(input, kind); });
}

} // namespace fuzz
