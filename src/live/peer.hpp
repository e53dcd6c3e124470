#pragma once

// A service that somebody follows: who owns its name now, which rules bring its signals, and what
// is still to be read from it.
//
//   owner   none --(NameOwnerChanged, GetNameOwner)--> :1.5 --(NameOwnerChanged)--> none, or :1.9
//
// Whatever is under way ends with the owner that it was asked of, so nothing that an earlier owner
// said is ever taken for the present one's.

#include "live/rules.hpp"

#include <map>

namespace bmcbus::live
{

struct Peer
{
    Hub* hub = nullptr;
    std::string name;
    std::string owner; // its unique name; empty: none, or not known yet
    Rule* owner_rule = nullptr;
    Slot question;       // GetNameOwner
    bool unsure = false; // its answer says nothing, or not for long: to be asked again

    std::vector<Entry*> entries;
    size_t signals = 0; // entries that are signals
    size_t others = 0;  // sets that follow it

    // Rules of the whole service, once it has many objects. While `switching` the objects keep
    // their own.
    bool many = false;
    bool switching = false;
    bool uncovered = false; // objects came or went since the rules were chosen
    Rule* manager_rule = nullptr;
    std::map<const char*, Rule*> changes_rules; // by interface

    // What to read, in order, and where all can be had at once.
    std::vector<Entry*> queue;
    std::vector<Entry*> listed; // what a GetManagedObjects under way is to bring
    Slot listing;               // that, or the question to the mapper where the manager is
    std::string manager;        // path of the object manager; empty: not known
    bool manages = false;       // and the present owner was seen to have one
    std::string asked;          // path of the one that is being asked
    bool asked_mapper = false;
    bool no_mapper = false;                          // there was none to ask
    std::vector<std::pair<Set*, std::string>> found; // new members of sets, so far
    uint8_t guesses = 0;
    uint16_t reading = 0; // reads of single objects under way
    bool singly = false;  // the objects in the queue are not to be had at once
};

} // namespace bmcbus::live
