#include "client/property_map.hpp"

#include <algorithm>

namespace bmcbus::client
{
namespace
{

bool Before(const char* a, const char* b)
{
    return std::strcmp(a, b) < 0;
}

// Senders mostly send their maps in order already.
template <class List, class Name>
void SortUnique(List& list, Name name)
{
    const auto before = [&](const auto& a, const auto& b)
    {
        return Before(name(a), name(b));
    };
    const auto notBefore = [&](const auto& a, const auto& b)
    {
        return !before(a, b);
    };
    if (std::adjacent_find(list.begin(), list.end(), notBefore) == list.end())
    {
        return;
    }
    std::stable_sort(list.begin(), list.end(), before);
    list.erase(std::unique(list.begin(), list.end(), notBefore), list.end());
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
    SortUnique(entries_,
               [](const Entry& entry)
               {
                   return entry.name;
               });
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
    SortUnique(names_,
               [](const char* name)
               {
                   return name;
               });
}

} // namespace bmcbus::client
