// Which members a set has: those that the mapper or the service's manager lists, and what is
// announced later. A member whose service has gone stays, lost, until the service has come back
// without it.

#include "bus/bus.hpp"
#include "live/hub.hpp"
#include "live/set.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr const char* enter = "sd_bus_message_enter_container";

auto Place(const std::vector<Entry*>& list, std::string_view path)
{
    return std::ranges::lower_bound(
        list, path, {}, [](const Entry* entry) { return std::string_view(entry->path()); });
}

// Of the a{sa{sv}} that comes next.
std::vector<std::string> InterfaceNames(sd_bus_message* message)
{
    std::vector<std::string> names;
    Require(sd_bus_message_enter_container(message, 'a', "{sa{sv}}"), enter);
    while (Require(sd_bus_message_enter_container(message, 'e', "sa{sv}"), enter) > 0)
    {
        const char* name = nullptr;
        Require(sd_bus_message_read_basic(message, 's', &name), "sd_bus_message_read_basic");
        names.emplace_back(name);
        Require(sd_bus_message_skip(message, "a{sv}"), "sd_bus_message_skip");
        Require(sd_bus_message_exit_container(message), "sd_bus_message_exit_container");
    }
    Require(sd_bus_message_exit_container(message), "sd_bus_message_exit_container");
    return names;
}

} // namespace

bool Set::Covers(std::string_view path) const
{
    return path != root && IsBelow(path, root);
}

Entry* Set::Find(std::string_view path) const
{
    const auto at = Place(members, path);
    return at != members.end() && (*at)->path() == path ? *at : nullptr;
}

void Set::Insert(Entry& entry)
{
    members.insert(Place(members, entry.path()), &entry);
}

void Set::Came(Entry& entry)
{
    there.insert(Place(there, entry.path()), &entry);
}

void Set::Erase(const Entry& entry)
{
    std::erase(members, &entry);
    std::erase(there, &entry);
}

void Hub::Add(std::unique_ptr<Set> owned, const std::string& service)
{
    Set& set = *owned;
    set.hub = this;
    sets_.push_back(std::move(owned));
    set.added_rule = rules_.Use(BelowManagerRule(set.root));
    if (service.empty())
    {
        set.by_mapper = true;
        FollowMapper(true);
        WantSetSearch(set);
        return;
    }
    set.peer = &PeerOf(service);
    ++set.peer->others;
    set.listed = true;
    if (!set.peer->question)
    {
        Tick();
    }
}

void Hub::Remove(Set& set)
{
    const Scope scope(*this, Entrance::Handle);
    const auto at =
        std::ranges::find_if(sets_, [&](const auto& each) { return each.get() == &set; });
    ended_sets_.push_back(std::move(*at));
    sets_.erase(at);
    for (Entry* entry : set.members)
    {
        End(*entry);
    }
    for (const auto& entry : ended_)
    {
        if (entry->set == &set)
        {
            entry->hooks.reset(); // its on_remove is not told any more
        }
    }
    set.members.clear();
    set.there.clear();
    rules_.Drop(set.added_rule);
    for (auto& [name, peer] : peers_)
    {
        std::erase_if(peer.found, [&](const auto& each) { return each.first == &set; });
    }
    if (!Searching())
    {
        FollowMapper(false);
    }
    if (set.peer != nullptr)
    {
        --set.peer->others;
        unused_ = true;
    }
}

// Makes a member where there is none, and has one that nobody else has any more move to `service`.
void Hub::Member(Set& set, const char* path, const std::string& service)
{
    if (Entry* const known = set.Find(path))
    {
        const Peer& has = *known->peer;
        if (has.name != service && has.owner.empty() && !has.question)
        {
            Attach(*known, PeerOf(service));
        }
        return;
    }
    auto entry = Entry::Make(set.about, path, set.hooks);
    entry->set = &set;
    set.Insert(*entry);
    Add(std::move(entry), service);
}

void Hub::RemoveMember(Entry& entry)
{
    entry.set->Erase(entry);
    static_cast<void>(entry.Enter(entry.Gone()));
    if (entry.added)
    {
        Note(entry, What::Went);
    }
    End(entry);
}

// A signal of a manager about an object that a set may want. Gives whether the mapper should be
// asked.
bool Hub::MembersAdded(sd_bus_message* message, const char* path)
{
    if (std::ranges::none_of(sets_, [&](const auto& set) { return set->Covers(path); }))
    {
        return false;
    }
    Peer* const sender = OwnedBy(sd_bus_message_get_sender(message));
    const std::vector<std::string> interfaces = InterfaceNames(message);
    bool hint = false;
    for (const auto& set : sets_)
    {
        if (!set->Covers(path) ||
            std::ranges::find(interfaces, set->about.interface->name) == interfaces.end())
        {
            continue;
        }
        Peer* const theirs =
            set->peer != nullptr && sender != nullptr && set->peer->owner == sender->owner
                ? set->peer // it may have several names
                : sender;
        if (theirs != nullptr && (set->peer == nullptr || set->peer == theirs))
        {
            // Where it stood was not known, and what it had was not listed.
            set->listed = set->listed || (set->peer == theirs && theirs->manager.empty());
            ManagerIs(*theirs, sd_bus_message_get_path(message));
            Member(*set, path, theirs->name);
        }
        else if (set->peer == nullptr)
        {
            set->expected = path;
            set->searched = true;
            hint = true;
        }
    }
    return hint;
}

// A service has come, perhaps with other objects than before.
void Hub::ListSets(Peer& peer)
{
    for (const auto& set : sets_)
    {
        set->listed = set->listed || set->peer == &peer;
        const auto theirs = [&](const Entry* entry) { return entry->peer == &peer; };
        if (set->peer == nullptr && std::ranges::any_of(set->members, theirs))
        {
            WantSetSearch(*set);
        }
    }
}

void Hub::WantSetSearch(Set& set)
{
    set.searched = true;
    searches_ = 0;
    search_due_ = 1;
    search_again_ = search_ != nullptr;
    Tick();
}

// An object that the service's manager lists; what follows are its interfaces.
void Hub::Listed(Peer& peer, const char* path, sd_bus_message* message)
{
    const std::vector<std::string> interfaces = InterfaceNames(message);
    for (const auto& set : sets_)
    {
        if (set->peer == &peer && set->listed && set->Covers(path) &&
            std::ranges::find(interfaces, set->about.interface->name) != interfaces.end())
        {
            ManagerIs(peer, peer.asked);
            peer.found.emplace_back(set.get(), path);
        }
    }
}

// The list has been read, or there is none to be had: then the mapper may know.
void Hub::SetsListed(Peer& peer, bool asked)
{
    for (const auto& set : sets_)
    {
        if (set->peer == &peer && std::exchange(set->listed, false))
        {
            set->by_mapper = !asked;
            if (!asked)
            {
                WantSetSearch(*set);
            }
        }
    }
    for (const auto& [set, path] : std::exchange(peer.found, {}))
    {
        Member(*set, path.c_str(), peer.name);
    }
}

bool Hub::WantsSetList(const Peer& peer) const
{
    return std::ranges::any_of(sets_,
                               [&](const auto& set) { return set->peer == &peer && set->listed; });
}

// What the mapper knows below the paths of the sets.
void Hub::MembersFound(const Tree& tree)
{
    for (const auto& set : sets_)
    {
        if (!set->searched)
        {
            continue;
        }
        set->searched = !set->expected.empty() && !tree.contains(set->expected);
        if (!set->searched)
        {
            set->expected.clear();
        }
        for (const auto& [path, services] : tree)
        {
            if (!set->Covers(path))
            {
                continue;
            }
            const Entry* const known = set->Find(path);
            const std::string* const service =
                NextService(services, set->about.interface->name,
                            known != nullptr ? known->peer : nullptr, set->peer);
            if (service != nullptr)
            {
                Member(*set, path.c_str(), *service);
            }
        }
    }
}

} // namespace bmcbus::live
