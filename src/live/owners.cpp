// Who owns the names that are followed, and which objects belong to whom.

#include "live/hub.hpp"

#include <algorithm>

namespace bmcbus::live
{

Peer& Hub::PeerOf(const std::string& name)
{
    const auto [at, fresh] = peers_.try_emplace(name);
    Peer& peer = at->second;
    if (fresh)
    {
        peer.hub = this;
        peer.name = name;
        peer.owner_rule = rules_.Use(OwnerRule(name));
        AskOwner(peer);
    }
    return peer;
}

// The daemon handles the rule first, so no change is missed, and the answer is the newest of all.
void Hub::AskOwner(Peer& peer)
{
    sd_bus_slot* slot = nullptr;
    static_cast<void>(sd_bus_call_method_async(
        bus(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetNameOwner", OnNameOwner, &peer, "s", peer.name.c_str()));
    peer.question.reset(slot);
}

int Hub::OnNameOwner(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Peer& peer = *static_cast<Peer*>(user_data);
    Hub& hub = *peer.hub;
    const Scope scope(hub);
    peer.question.reset();
    hub.Guard(
        [&]
        {
            const sd_bus_error* const error = sd_bus_message_get_error(answer);
            const bool none = sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) != 0;
            const char* owner = "";
            if (error == nullptr)
            {
                static_cast<void>(sd_bus_message_read_basic(answer, SD_BUS_TYPE_STRING, &owner));
            }
            if (error == nullptr || none)
            {
                hub.OwnerIs(peer, owner);
            }
            if (peer.owner_rule->refused())
            {
                hub.Unsure(peer, peer.owner_rule->failure());
            }
            else if (error != nullptr && !none)
            {
                hub.Unsure(peer, FailureOf(error));
            }
            if (none)
            {
                hub.SearchElsewhere(peer);
            }
            hub.Flush();
        });
    return 1;
}

// Another owner would not be told, or who it is was not: both are asked for again.
void Hub::Unsure(Peer& peer, const Failure& failure)
{
    peer.unsure = true;
    for (Entry* entry : peer.entries)
    {
        entry->failure = std::make_unique<Failure>(failure);
    }
    if (owners_due_ == 0)
    {
        owners_due_ = Now() + PauseAfter(owner_failures_);
        owner_failures_ = static_cast<uint8_t>(std::min(owner_failures_ + 1, 100));
        Arm();
    }
}

void Hub::AskOwnersAgain()
{
    owners_due_ = 0;
    for (auto& [name, peer] : peers_)
    {
        if (std::exchange(peer.unsure, false))
        {
            rules_.Retry(peer.owner_rule);
            AskOwner(peer);
        }
    }
}

Peer* Hub::OwnedBy(const char* owner)
{
    for (auto& [name, peer] : peers_)
    {
        if (!peer.owner.empty() && peer.owner == owner)
        {
            return &peer;
        }
    }
    return nullptr;
}

void Hub::Attach(Entry& entry, Peer& peer)
{
    if (entry.peer == &peer)
    {
        return;
    }
    CancelRead(entry);
    Detach(entry);
    entry.peer = &peer;
    peer.entries.push_back(&entry);
    peer.uncovered = true;
    peer.signals += entry.signal != nullptr ? 1 : 0;
    WantRead(entry); // if the owner is known already
    if (!peer.question)
    {
        Tick(); // what is asked for until then goes out together
    }
}

void Hub::Detach(Entry& entry)
{
    if (Peer* const peer = std::exchange(entry.peer, nullptr))
    {
        std::erase(peer->entries, &entry);
        peer->signals -= entry.signal != nullptr ? 1 : 0;
        peer->uncovered = peer->uncovered || peer->many;
        unused_ = unused_ || peer->entries.empty();
    }
}

// Nothing of an earlier owner survives its end: neither a read under way nor the claim to be live.
void Hub::OwnerIs(Peer& peer, const char* owner)
{
    if (peer.owner == owner)
    {
        return;
    }
    EndListing(peer);
    const bool had = !std::exchange(peer.owner, {}).empty();
    for (Entry* entry : std::vector<Entry*>(peer.entries))
    {
        if (had)
        {
            ObjectGone(*entry);
        }
    }
    Deliver(); // each sees its loss before what comes next
    peer.owner = owner;
    peer.guesses = 0;
    peer.asked_mapper = peer.no_mapper = false;
    peer.singly = peer.manages = false;
    if (!peer.owner.empty())
    {
        for (Entry* entry : peer.entries)
        {
            entry->failures = 0;
            WantRead(*entry);
        }
        ListSets(peer);
    }
}

void Hub::DropUnusedPeers()
{
    if (!std::exchange(unused_, false))
    {
        return;
    }
    for (auto at = peers_.begin(); at != peers_.end();)
    {
        Peer& peer = at->second;
        if (!peer.entries.empty() || peer.others > 0)
        {
            ++at;
            continue;
        }
        EndListing(peer);
        many_ -= peer.many ? 1 : 0;
        DropServiceRules(peer);
        rules_.Drop(peer.owner_rule);
        at = peers_.erase(at);
    }
}

} // namespace bmcbus::live
