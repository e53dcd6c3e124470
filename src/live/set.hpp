#pragma once

// Every object of an interface below a path. Its members are entries as those of single handles;
// the set decides which there are.

#include "live/entry.hpp"

namespace bmcbus::live
{

class Set
{
  public:
    Set(const client::CachedClass& description, std::string path,
        std::shared_ptr<Hooks> callables) :
        about(description), root(std::move(path)), hooks(std::move(callables))
    {
    }

    bool Covers(std::string_view path) const;
    // The member at `path`, null if there is none.
    Entry* Find(std::string_view path) const;
    void Insert(Entry& entry);
    void Erase(const Entry& entry);
    void Came(Entry& entry);

    const client::CachedClass& about;
    const std::string root;
    const std::shared_ptr<Hooks> hooks;
    Hub* hub = nullptr;
    Peer* peer = nullptr; // whose objects; null: those of anybody the mapper names
    Rule* added_rule = nullptr;
    bool searched = false;  // the mapper is to be asked
    bool by_mapper = false; // and whenever it has learned of something
    bool listed = false;    // the service's manager is to be asked
    std::string expected;   // announced by somebody whom the mapper has to name

    // Both in the order of their paths.
    std::vector<Entry*> members;
    std::vector<Entry*> there; // those that users know of
};

} // namespace bmcbus::live
