// The hub's own life, the objects that enter and leave it, and the callbacks that are due when
// nothing of it is half-way.

#include "live/hub.hpp"

#include "bus/bus.hpp"
#include "live/anchor.hpp"
#include "live/set.hpp"
#include "log.hpp"

#include <algorithm>
#include <cerrno>

namespace bmcbus::live
{
namespace
{

// A connection and its hub belong to one thread.
constinit thread_local Hub* firstHub = nullptr;

} // namespace

Failure FailureOf(const sd_bus_error* error)
{
    return {error->name != nullptr ? error->name : "",
            error->message != nullptr ? error->message : ""};
}

void Hub::LogException(const std::exception& error)
{
    BMCBUS_LOG_EXCEPTION(bmcbus::log::librarySource, "", error.what());
}

// The filter is given an anchor in place of the hub: it outlives the hub where it cannot be taken
// away at once.
Hub::Hub(sd_bus* bus) : bus_(sd_bus_ref(bus)), alarm_{.ring = OnAlarm, .data = this}
{
    int result = 0;
    detail::Hub* const calls = detail::Hub::Get(bus, result);
    Require(result, "sd_bus_add_match");
    auto anchor = std::make_unique<Anchor>(Anchor{this});
    sd_bus_slot* slot = nullptr;
    Require(sd_bus_add_filter(bus, &slot, OnMessage, anchor.get()), "sd_bus_add_filter");
    filter_.reset(slot);
    sd_bus_slot_set_destroy_callback(slot, [](void* held) { delete static_cast<Anchor*>(held); });
    anchor_ = anchor.release();
    calls->Add(alarm_);
    next_ = std::exchange(firstHub, this);
}

Hub::~Hub()
{
    for (Hub** link = &firstHub; *link != nullptr; link = &(*link)->next_)
    {
        if (*link == this)
        {
            *link = next_;
            break;
        }
    }
}

Hub& Hub::Of(sd_bus* given)
{
    BusRef own;
    if (given == nullptr)
    {
        own = DefaultBus();
        given = own.get();
    }
    if (const int open = sd_bus_is_open(given); open <= 0)
    {
        throw Error(open < 0 ? -open : ENOTCONN, "sd_bus_is_open");
    }
    Hub* const hub = Find(given);
    return hub != nullptr ? *hub : *new Hub(given);
}

Hub* Hub::Find(const sd_bus* bus)
{
    for (Hub* hub = firstHub; hub != nullptr; hub = hub->next_)
    {
        if (hub->bus() == bus)
        {
            return hub;
        }
    }
    return nullptr;
}

// Lets go of the connection. Inside the filter the filter's slot must stay, since sd-bus is walking
// over it.
void Hub::Retire(bool in_filter)
{
    tick_.reset();
    silence_.reset();
    search_.reset();
    if (detail::Hub* const calls = detail::Hub::Find(bus()))
    {
        calls->Remove(alarm_);
    }
    for (auto& [name, peer] : peers_)
    {
        peer.question.reset();
        peer.listing.reset();
    }
    if (filter_)
    {
        anchor_->hub = nullptr;
        if (in_filter)
        {
            sd_bus_slot_set_floating(filter_.get(), 1);
        }
        filter_.reset();
    }
}

Hub::Scope::Scope(Hub& hub, Entrance by) : hub_(hub), by_(by)
{
    ++hub.depth_;
    hub.in_filter_ = hub.in_filter_ || by == Entrance::Filter;
}

Hub::Scope::~Scope()
{
    if (by_ != Entrance::Handle)
    {
        hub_.Deliver();
    }
    if (hub_.depth_ > 1)
    {
        --hub_.depth_;
        return;
    }
    if (std::exchange(hub_.told_, false) && hub_.usable() && sd_bus_is_open(hub_.bus()) == 0)
    {
        // A callback closed it, and nothing else will say so.
        hub_.Ended(hub_.in_filter_);
        hub_.Deliver();
    }
    // Callables may own handles, so more may end with them.
    while (!hub_.ended_.empty() || !hub_.ended_sets_.empty())
    {
        std::erase_if(hub_.notes_, [](const Telling& note) { return !note.entry->hooks; });
        const auto sets = std::exchange(hub_.ended_sets_, {});
        const auto entries = std::exchange(hub_.ended_, {});
    }
    hub_.DropUnusedPeers();
    --hub_.depth_;
    const bool in_filter = std::exchange(hub_.in_filter_, false);
    if (hub_.Unused())
    {
        hub_.FollowMapper(false);
        hub_.Retire(in_filter);
        delete &hub_;
    }
}

Entry& Hub::Add(std::unique_ptr<Entry> owned, const std::string& service)
{
    Entry& entry = *owned;
    entry.hub = this;
    index_.Add(*owned.release());
    signals_ += entry.signal != nullptr ? 1 : 0;
    if (service.empty())
    {
        entry.by_mapper = true;
        WantSearch(entry);
    }
    else
    {
        Attach(entry, PeerOf(service));
    }
    return entry; // cppcheck-suppress returnReference ; the index owns it
}

void Hub::Remove(Entry& entry)
{
    const Scope scope(*this, Entrance::Handle);
    entry.hooks.reset(); // while one of them runs, whoever runs it keeps it
    End(entry);
}

// Takes it out of everything. It stays until the outermost scope ends.
void Hub::End(Entry& entry)
{
    ended_.emplace_back(&entry); // first, so that nothing is lost when memory is short
    CancelRead(entry);
    Detach(entry);
    Uncover(entry);
    EndSearch(entry);
    index_.Remove(entry);
    signals_ -= entry.signal != nullptr ? 1 : 0;
    entry.hub = nullptr;
}

void Hub::NoteState(Entry& entry, LiveState state)
{
    if (entry.set == nullptr || entry.added)
    {
        if (entry.hooks)
        {
            notes_.push_back({&entry, What::State, state});
        }
    }
    else if (state == LiveState::Live)
    {
        entry.added = true;
        entry.set->Came(entry);
        Note(entry, What::Came);
    }
}

void Hub::NoteChanges(Entry& entry, std::span<const uint16_t> which)
{
    if (entry.hooks && !which.empty())
    {
        const auto first = static_cast<uint32_t>(names_.size());
        names_.insert(names_.end(), which.begin(), which.end());
        notes_.push_back(
            {&entry, What::Changes, entry.state(), first, static_cast<uint32_t>(which.size())});
    }
}

void Hub::Note(Entry& entry, What what)
{
    if (entry.hooks)
    {
        notes_.push_back({&entry, what, entry.state()});
    }
}

void Hub::Deliver()
{
    if (notes_.empty())
    {
        return;
    }
    std::vector<Telling> notes = std::exchange(notes_, {});
    std::vector<uint16_t> names = std::exchange(names_, {});
    ++depth_; // what ends meanwhile stays until the last note was looked at
    for (const Telling& telling : notes)
    {
        if (telling.entry->hooks)
        {
            Tell(telling, std::span(names).subspan(telling.first, telling.count));
        }
    }
    --depth_;
    if (notes_.empty())
    {
        // Keeps the memory for the next message.
        notes.clear();
        names.clear();
        notes_.swap(notes);
        names_.swap(names);
    }
}

void Hub::Tell(const Telling& telling, std::span<const uint16_t> names)
{
    Entry& entry = *telling.entry;
    const std::shared_ptr<Hooks> hooks = entry.hooks;
    told_ = true;
    const int64_t before = Now();
    Guard(
        [&]
        {
            switch (telling.what)
            {
                case What::State:
                    return hooks->State(entry.object, telling.state);
                case What::Changes:
                    return hooks->Change(entry.object,
                                         Changes(*entry.properties->interface, names));
                case What::Came:
                case What::Went:
                    return hooks->Presence(entry.object, telling.what == What::Came);
                case What::Arrived:
                    return hooks->Arrived(entry.object);
                case What::Missed:
                    return hooks->Missed(entry.object);
            }
        });
    entry.slowest = std::max(entry.slowest, Now() - before);
}

void Hub::SetState(Entry& entry, LiveState state)
{
    if (entry.Enter(state))
    {
        NoteState(entry, state);
    }
}

// The object is not there, whoever its peer is.
void Hub::ObjectGone(Entry& entry)
{
    CancelRead(entry);
    const bool owned = entry.peer != nullptr && !entry.peer->owner.empty();
    if (entry.set != nullptr && owned)
    {
        RemoveMember(entry);
        return;
    }
    Lose(entry);
    if (entry.by_mapper)
    {
        WantSearch(entry);
    }
    else if (entry.set != nullptr && entry.set->peer == nullptr)
    {
        WantSetSearch(*entry.set); // another service may have it, too
    }
}

void Hub::Lose(Entry& entry)
{
    if (entry.signal != nullptr && entry.state() == LiveState::Live)
    {
        ++entry.missed;
        Note(entry, What::Missed);
    }
    SetState(entry, entry.Gone());
}

} // namespace bmcbus::live
