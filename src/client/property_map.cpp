#include "client/property_map.hpp"

#include "bus/bus.hpp"

#include <algorithm>
#include <functional>

namespace bmcbus::client
{
namespace
{

// Equal names stay in the order of the message, which both point into.
bool Before(const char* a, const char* b)
{
    const int order = std::strcmp(a, b);
    return order != 0 ? order < 0 : std::less<>()(a, b);
}

// Senders mostly send their maps in order already; where one does not, small code will do.
template <class List, class Name>
void SortUnique(List& list, Name name)
{
    const auto before = [&](const auto& a, const auto& b) { return Before(name(a), name(b)); };
    const auto notAscending = [&](const auto& a, const auto& b)
    { return std::strcmp(name(a), name(b)) >= 0; };
    if (std::adjacent_find(list.begin(), list.end(), notAscending) == list.end())
    {
        return;
    }
    std::make_heap(list.begin(), list.end(), before);
    std::sort_heap(list.begin(), list.end(), before);
    list.erase(std::unique(list.begin(), list.end(), notAscending), list.end());
}

} // namespace

void PropertyMap::Read(sd_bus_message* message, const Interface& interface, bool keep)
{
    entries_.clear();
    if (!keep)
    {
        Require(sd_bus_message_skip(message, "a{sv}"), step::enterMap);
        return;
    }
    Enter(message, SD_BUS_TYPE_ARRAY, "{sv}", step::enterMap);
    entries_.reserve(interface.properties.size());
    while (Enter(message, SD_BUS_TYPE_DICT_ENTRY, "sv", step::enterTuple))
    {
        Entry& entry = entries_.emplace_back();
        ReadText(message, SD_BUS_TYPE_STRING, entry.name);
        ReadVariant(message, interface.alternatives, entry.value);
        Exit(message, step::exitTuple);
    }
    Exit(message, step::exitMap);
    SortUnique(entries_, [](const Entry& entry) { return entry.name; });
}

void InterfaceMap::Read(sd_bus_message* message, const Interface& interface)
{
    Enter(message, SD_BUS_TYPE_ARRAY, "{sa{sv}}", step::enterMap);
    bool seen = false;
    while (Enter(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}", step::enterTuple))
    {
        const char*& name = names_.emplace_back();
        ReadText(message, SD_BUS_TYPE_STRING, name);
        if (!seen && std::strcmp(name, interface.name) == 0)
        {
            seen = true;
            properties_.Read(message, interface);
        }
        else
        {
            PropertyMap().Read(message, interface, false);
        }
        Exit(message, step::exitTuple);
    }
    Exit(message, step::exitMap);
    SortUnique(names_, [](const char* name) { return name; });
}

} // namespace bmcbus::client
