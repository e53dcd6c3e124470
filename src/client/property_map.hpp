#pragma once

#include "client/value.hpp"

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

// A decoded a{sv}, in ascending order of the names; of equal names the first stays. The names point
// into the message, which must outlive the map.
class PropertyMap
{
  public:
    struct Entry
    {
        const char* name;
        Value value;
    };

    // Reads the whole map or throws Error. With `keep` false the values are checked and dropped.
    void Read(sd_bus_message* message, const Interface& interface, bool keep = true);

    std::vector<Entry>& entries() { return entries_; }

  private:
    std::vector<Entry> entries_;
};

// A decoded a{sa{sv}}: the names of the interfaces in ascending order, and the properties of one.
class InterfaceMap
{
  public:
    // Reads the whole map or throws Error.
    void Read(sd_bus_message* message, const Interface& interface);

    const std::vector<const char*>& names() const { return names_; }
    PropertyMap& properties() { return properties_; }

  private:
    std::vector<const char*> names_;
    PropertyMap properties_;
};

} // namespace bmcbus::client
