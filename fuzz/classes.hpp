#pragma once

// The classes under test, and their members by name.

#include "input.hpp"

#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <string>
#include <vector>

namespace fuzz
{

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using Power = ClientCache::com::tamm::bmc::power::PowerReporting;
using FanSignal = ClientCache::FanReporting::notifyFanReportingData;
using PowerSignal = ClientCache::PowerReporting::NotifyPwrReportingData;

// A property or argument of Class.
template <class Class>
struct Member
{
    std::string name;
    kit::Value initial;
    kit::Value (*get)(Class& object, bool& is_set);
};

// What is fixed about Class: names, and members in the order of their declaration.
template <class Class>
struct About;

#define MEMBER(member)                                                                             \
    {#member, kit::Value(decltype(std::declval<Class>().Get_##member()){}),                        \
     [](Class& object, bool& is_set)                                                               \
     {                                                                                             \
         decltype(object.Get_##member()) value{};                                                  \
         object.Get_##member(is_set, value);                                                       \
         return kit::Value(value);                                                                 \
     }},

template <>
struct About<Fans>
{
    using Class = Fans;
    static constexpr const char* interface = "com.tamm.bmc.Thermal.FanReporting";
    inline static const std::vector<Member<Class>> members = {
#include "fan_properties.inc"
    };
};

template <>
struct About<Power>
{
    using Class = Power;
    static constexpr const char* interface = "com.tamm.bmc.power.PowerReporting";
    inline static const std::vector<Member<Class>> members = {
#include "power_properties.inc"
    };
};

template <>
struct About<FanSignal>
{
    using Class = FanSignal;
    static constexpr const char* interface = "com.tamm.bmc.Thermal.FanReporting";
    static constexpr const char* signal = "notifyFanReportingData";
    inline static const std::vector<Member<Class>> members = {
#include "fan_arguments.inc"
    };
};

template <>
struct About<PowerSignal>
{
    using Class = PowerSignal;
    static constexpr const char* interface = "com.tamm.bmc.power.PowerReporting";
    static constexpr const char* signal = "NotifyPwrReportingData";
    inline static const std::vector<Member<Class>> members = {
#include "power_arguments.inc"
    };
};

#undef MEMBER

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

} // namespace fuzz
