// Which match rules bring an object's signals: its own while its service has few objects, so that
// no other object's signals wake the process; the service's once there are many, since every rule
// costs the daemon a look at each signal. New rules are in force before old ones go.

#include "live/hub.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

// At most so many objects of one service, and of all services of a connection, have rules of their
// own.
constexpr size_t fewOfOne = 16;
constexpr size_t fewOfAll = 32;
// With fewer than so many objects left a service goes back from its rules to theirs.
constexpr size_t fewAgain = 8;

} // namespace

bool Hub::WantsMany(const Peer& peer) const
{
    const size_t size = peer.entries.size() - peer.signals;
    if (peer.many)
    {
        return size >= fewAgain || paths_ + size > fewOfAll;
    }
    const auto bare = static_cast<size_t>(std::ranges::count_if(
        peer.entries, [](const Entry* entry)
        { return entry->changes_rule == nullptr && entry->signal == nullptr; }));
    return size > fewOfOne || paths_ + bare > fewOfAll;
}

bool Hub::UsePathRules(Entry& entry)
{
    if (entry.changes_rule == nullptr)
    {
        entry.changes_rule =
            rules_.Use(entry.signal != nullptr
                           ? SignalRule(entry.path(), entry.interface(), entry.signal->member)
                           : PathChangesRule(entry.path()));
        entry.manager_rule = rules_.Use(PathManagerRule(entry.path()));
        paths_ += entry.signal != nullptr ? 0 : 1;
    }
    return entry.changes_rule->installed() && entry.manager_rule->installed();
}

void Hub::Uncover(Entry& entry)
{
    if (entry.changes_rule != nullptr)
    {
        rules_.Drop(entry.changes_rule);
        rules_.Drop(entry.manager_rule);
        paths_ -= entry.signal != nullptr ? 0 : 1;
    }
}

void Hub::UseServiceRules(Peer& peer)
{
    if (peer.manager_rule == nullptr)
    {
        peer.manager_rule = rules_.Use(ServiceManagerRule(peer.name));
    }
    for (const Entry* entry : peer.entries)
    {
        if (entry->signal != nullptr)
        {
            continue;
        }
        Rule*& rule = peer.changes_rules[entry->interface()];
        if (rule == nullptr)
        {
            rule = rules_.Use(ServiceChangesRule(peer.name, entry->interface()));
        }
    }
}

void Hub::DropServiceRules(Peer& peer)
{
    rules_.Drop(peer.manager_rule);
    for (auto& [interface, rule] : peer.changes_rules)
    {
        rules_.Drop(rule);
    }
    peer.changes_rules.clear();
}

void Hub::Cover(Peer& peer)
{
    if (!usable())
    {
        return;
    }
    const bool many = WantsMany(peer);
    many_ += many && !peer.many ? 1 : 0;
    many_ -= peer.many && !many ? 1 : 0;
    peer.many = many;
    if (many)
    {
        UseServiceRules(peer);
        const auto pending = [](const auto& each) { return !each.second->installed(); };
        const bool ready =
            peer.manager_rule->installed() && std::ranges::none_of(peer.changes_rules, pending);
        peer.switching = !ready;
        for (Entry* entry : peer.entries)
        {
            if (entry->signal != nullptr)
            {
                peer.switching = !UsePathRules(*entry) || peer.switching;
                Hear(*entry);
            }
            else if (ready)
            {
                Uncover(*entry);
            }
        }
        return;
    }
    peer.switching = false;
    for (Entry* entry : peer.entries)
    {
        peer.switching = !UsePathRules(*entry) || peer.switching;
        Hear(*entry);
    }
    if (!peer.switching)
    {
        DropServiceRules(peer);
    }
}

// A signal that waits for its rules is live when they are in force.
void Hub::Hear(Entry& entry)
{
    if (entry.awaits != Awaits::Rules)
    {
        return;
    }
    if (const Rule* rule = Uncovered(entry))
    {
        entry.failure = std::make_unique<Failure>(rule->failure());
        Pause(entry);
    }
    else if (entry.changes_rule != nullptr && entry.changes_rule->installed() &&
             entry.manager_rule->installed())
    {
        entry.awaits = Awaits::Nothing;
        entry.failures = 0;
        entry.failure.reset();
        SetState(entry, LiveState::Live);
    }
}

const Rule* Hub::Uncovered(const Entry& entry) const
{
    const Peer& peer = *entry.peer;
    if (peer.owner_rule->refused())
    {
        return peer.owner_rule;
    }
    const bool own = entry.changes_rule != nullptr && !entry.changes_rule->refused() &&
                     !entry.manager_rule->refused();
    if (own)
    {
        return nullptr;
    }
    const auto found = peer.changes_rules.find(entry.interface());
    for (const Rule* rule :
         {peer.manager_rule,
          static_cast<Rule*>(found != peer.changes_rules.end() ? found->second : nullptr),
          entry.changes_rule, entry.manager_rule})
    {
        if (rule != nullptr && rule->refused())
        {
            return rule;
        }
    }
    return nullptr;
}

// A rule that was refused may be granted when others have gone. That of the owner is seen to by
// AskOwner().
void Hub::RetryRules(Entry& entry)
{
    rules_.Retry(entry.changes_rule);
    rules_.Retry(entry.manager_rule);
    if (entry.peer->many)
    {
        rules_.Retry(entry.peer->manager_rule);
        const auto found = entry.peer->changes_rules.find(entry.interface());
        rules_.Retry(found != entry.peer->changes_rules.end() ? found->second : nullptr);
    }
}

void Hub::RuleAnswered()
{
    for (auto& [name, peer] : peers_)
    {
        if (peer.switching)
        {
            Cover(peer);
        }
    }
}

} // namespace bmcbus::live
