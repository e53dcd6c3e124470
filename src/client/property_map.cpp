// Reads maps of properties and of interfaces. A property's name gives its number and with it the
// type to expect, before its value is looked at.

#include "client/property_map.hpp"

#include "bus/bus.hpp"

#include <algorithm>

namespace bmcbus::client
{
namespace
{

// Mostly there are none or few, and in order already.
template <class List, class Name>
void SortUnique(List& list, Name name)
{
    const auto before = [&](const auto& a, const auto& b)
    { return std::strcmp(name(a), name(b)) < 0; };
    const auto notAscending = [&](const auto& a, const auto& b) { return !before(a, b); };
    if (std::adjacent_find(list.begin(), list.end(), notAscending) == list.end())
    {
        return;
    }
    std::make_heap(list.begin(), list.end(), before);
    std::sort_heap(list.begin(), list.end(), before);
    list.erase(std::unique(list.begin(), list.end(), notAscending), list.end());
}

} // namespace

void PropertyMap::Read(sd_bus_message* message)
{
    Enter(message, SD_BUS_TYPE_ARRAY, "{sv}", step::enterMap);
    values_.reserve(interface_->properties.size());
    places_.resize(interface_->properties.size());
    while (Enter(message, SD_BUS_TYPE_DICT_ENTRY, "sv", step::enterTuple))
    {
        ReadEntry(message);
        Exit(message, step::exitTuple);
    }
    Exit(message, step::exitMap);
    SortUnique(strangers_, [](const Stranger& stranger) { return stranger.name; });
}

void PropertyMap::ReadEntry(sd_bus_message* message)
{
    const char* name = nullptr;
    ReadText(message, SD_BUS_TYPE_STRING, name);
    const Position position = interface_->PositionOf(name);
    if (position.is_property && places_[position.number] == 0)
    {
        const Property& property = interface_->properties[position.number];
        ReadVariant(message, interface_->alternatives, property.type_index, values_.emplace_back());
        places_[position.number] = static_cast<uint16_t>(values_.size());
        return;
    }
    if (!position.is_property)
    {
        strangers_.push_back({name, position.number});
    }
    // Read as any other, so that what is wrong with it shows.
    Value unwanted;
    ReadVariant(message, interface_->alternatives, 0, unwanted);
}

void SkipProperties(sd_bus_message* message)
{
    Require(sd_bus_message_skip(message, "a{sv}"), step::enterMap);
}

void InterfaceMap::Read(sd_bus_message* message)
{
    Enter(message, SD_BUS_TYPE_ARRAY, "{sa{sv}}", step::enterMap);
    bool seen = false;
    while (Enter(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}", step::enterTuple))
    {
        const char*& name = names_.emplace_back();
        ReadText(message, SD_BUS_TYPE_STRING, name);
        if (!seen && std::strcmp(name, interface_->name) == 0)
        {
            seen = true;
            properties_.Read(message);
        }
        else
        {
            SkipProperties(message);
        }
        Exit(message, step::exitTuple);
    }
    Exit(message, step::exitMap);
    SortUnique(names_, [](const char* name) { return name; });
}

} // namespace bmcbus::client
