#pragma once

// Decoded maps of a message, whole or not at all. Names point into the message, which must outlive
// the map.

#include "client/value.hpp"

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

// A decoded a{sv} of one interface; of equal names the first stays. Values lie as they came; the
// order of the names comes from the interface's table, so that nothing is sorted.
class PropertyMap
{
  public:
    explicit PropertyMap(const Interface& interface) : interface_(&interface) {}

    // Reads the whole map or throws Error.
    void Read(sd_bus_message* message);

    bool empty() const { return values_.empty() && strangers_.empty(); }

    // Goes through the map in ascending order of the names: property(name, number, value) for
    // those that the interface has, stranger(name) for others.
    template <class WithProperty, class WithStranger>
    void ForEach(WithProperty property, WithStranger stranger);

  private:
    // A name that the interface does not have, and the property in front of which it stands.
    struct Stranger
    {
        const char* name;
        uint16_t before;
    };

    void ReadEntry(sd_bus_message* message);

    const Interface* interface_;
    std::vector<Value> values_;
    std::vector<uint16_t> places_; // by a property's number: that of its value plus one, or 0
    std::vector<Stranger> strangers_;
};

// A decoded a{sa{sv}}: the names of the interfaces in ascending order, and the properties of one.
class InterfaceMap
{
  public:
    explicit InterfaceMap(const Interface& interface) :
        interface_(&interface), properties_(interface)
    {
    }

    // Reads the whole map or throws Error.
    void Read(sd_bus_message* message);

    const std::vector<const char*>& names() const { return names_; }
    PropertyMap& properties() { return properties_; }

  private:
    const Interface* interface_;
    std::vector<const char*> names_;
    PropertyMap properties_;
};

// Checks an a{sv} that nobody wants.
void SkipProperties(sd_bus_message* message);

template <class WithProperty, class WithStranger>
void PropertyMap::ForEach(WithProperty property, WithStranger stranger)
{
    auto other = strangers_.begin();
    const auto count = static_cast<uint16_t>(places_.size());
    for (uint16_t number = 0; number < count; ++number)
    {
        for (; other != strangers_.end() && other->before == number; ++other)
        {
            stranger(other->name);
        }
        if (places_[number] != 0)
        {
            property(interface_->NameOf(interface_->properties[number]), number,
                     values_[places_[number] - 1]);
        }
    }
    for (; other != strangers_.end(); ++other)
    {
        stranger(other->name);
    }
}

} // namespace bmcbus::client
