#pragma once

// The classes under test, and their members by name.

#include "input.hpp"

#include <com/catalogue.hpp>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

namespace fuzz
{

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using Power = ClientCache::com::tamm::bmc::power::PowerReporting;

// A property or argument of Class.
template <class Class>
struct Member
{
    std::string name;
    kit::Value initial;
    std::function<kit::Value(Class& object, bool& is_set)> get;
};

// What is fixed about Class: names, and members in the order of their declaration.
template <class Class>
struct About : catalogue::Members<Class>
{
    static std::vector<Member<Class>> Listed()
    {
        std::vector<Member<Class>> list;
        About::Each(
            [&]<class T>(const catalogue::Member<Class, T>& member)
            {
                list.push_back({member.name, kit::Value(T{}),
                                [get = member.get](Class& object, bool& is_set)
                                {
                                    T value{};
                                    (object.*get)(is_set, value);
                                    return kit::Value(value);
                                }});
            });
        return list;
    }

    inline static const std::vector<Member<Class>> members = Listed();
};

// A value as an object keeps it: a map by text in order, of equal keys the first.
kit::Value AsKept(const kit::Value& value);

// Equal to the last bit, numbers that are none included.
bool Same(const kit::Value& a, const kit::Value& b);

// Names of the interface and of all members, for inputs about Class.
template <class Class>
const std::vector<Word>& Words()
{
    static const std::vector<Word> words = []
    {
        std::vector<Word> list = {{About<Class>::interface, "s"}};
        for (const Member<Class>& member : About<Class>::members)
        {
            list.push_back({member.name, member.initial.Signature()});
        }
        return list;
    }();
    return words;
}

// Calls `round` with the rest of the input and, as a type, the class that the first byte chooses.
template <class Do>
int ForOneOf(const uint8_t* data, size_t size, const Do& round)
{
    const auto run = [&](auto class_)
    {
        Input input(data + 1, size - 1, Words<typename decltype(class_)::type>());
        round(input, class_);
    };
    if (size > 0)
    {
        data[0] % 2 == 0 ? run(std::type_identity<Fans>()) : run(std::type_identity<Power>());
    }
    return 0;
}

} // namespace fuzz
