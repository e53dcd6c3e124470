#include "live/hub.hpp"

#include "bus/bus.hpp"
#include "live/anchor.hpp"
#include "log.hpp"

#include <algorithm>

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

// The filter's place in sd-bus: it outlives the hub where it cannot be taken away at once.
Hub::Hub(sd_bus* bus) : bus_(sd_bus_ref(bus))
{
    auto anchor = std::make_unique<Anchor>(Anchor{this});
    sd_bus_slot* slot = nullptr;
    Require(sd_bus_add_filter(bus, &slot, OnMessage, anchor.get()), "sd_bus_add_filter");
    filter_.reset(slot);
    sd_bus_slot_set_destroy_callback(slot, [](void* held) { delete static_cast<Anchor*>(held); });
    anchor_ = anchor.release();
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
    sd_event_source_disable_unref(timer_);
}

Hub& Hub::Of(sd_bus* given)
{
    BusRef own;
    if (given == nullptr)
    {
        own = DefaultBus();
        given = own.get();
    }
    if (Hub* const hub = Find(given))
    {
        return *hub;
    }
    return *new Hub(given);
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

// Lets go of the connection. Inside the filter its slot must stay: sd-bus walks over it.
void Hub::Retire(bool in_filter)
{
    tick_.reset();
    silence_.reset();
    search_.reset();
    timer_ = sd_event_source_disable_unref(timer_);
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

Hub::Scope::Scope(Hub& hub, bool in_filter) : hub_(hub)
{
    ++hub.depth_;
    hub.in_filter_ = hub.in_filter_ || in_filter;
}

Hub::Scope::~Scope()
{
    hub_.Deliver();
    if (--hub_.depth_ > 0)
    {
        return;
    }
    hub_.ended_.clear();
    hub_.DropUnusedPeers();
    const bool in_filter = std::exchange(hub_.in_filter_, false);
    if (hub_.index_.size() == 0)
    {
        hub_.FollowNames(false);
        hub_.Retire(in_filter);
        delete &hub_;
    }
}

void Hub::Add(std::unique_ptr<Entry> owned, const std::string& service)
{
    Entry& entry = *owned;
    entry.hub = this;
    index_.Add(*owned.release());
    if (service.empty())
    {
        entry.by_mapper = true;
        WantSearch(entry);
    }
    else
    {
        Attach(entry, PeerOf(service));
    }
}

void Hub::Remove(Entry& entry)
{
    const Scope scope(*this);
    ended_.emplace_back(&entry); // first, so that nothing is lost when memory is short
    CancelRead(entry);
    Detach(entry);
    Uncover(entry);
    EndSearch(entry);
    index_.Remove(entry);
    entry.hub = nullptr;
}

void Hub::NoteState(Entry& entry, LiveState state)
{
    if (entry.hooks)
    {
        notes_.push_back({&entry, true, state, 0, 0});
    }
}

void Hub::NoteChanges(Entry& entry, std::span<const uint16_t> which)
{
    if (entry.hooks && !which.empty())
    {
        const auto first = static_cast<uint32_t>(names_.size());
        names_.insert(names_.end(), which.begin(), which.end());
        notes_.push_back(
            {&entry, false, entry.state(), first, static_cast<uint32_t>(which.size())});
    }
}

void Hub::Deliver()
{
    if (notes_.empty())
    {
        return;
    }
    std::vector<Note> notes = std::exchange(notes_, {});
    std::vector<uint16_t> names = std::exchange(names_, {});
    ++depth_; // what ends meanwhile stays until the last note was looked at
    for (const Note& note : notes)
    {
        if (note.entry->hub != nullptr)
        {
            Tell(note, std::span(names).subspan(note.first, note.count));
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

void Hub::Tell(const Note& note, std::span<const uint16_t> names)
{
    const std::shared_ptr<Hooks> hooks = note.entry->hooks;
    const int64_t before = Now();
    Guard(
        [&]
        {
            if (note.is_state)
            {
                hooks->State(note.entry->object, note.state);
            }
            else
            {
                hooks->Change(note.entry->object, Changes(*note.entry->about.interface, names));
            }
        });
    note.entry->slowest = std::max(note.entry->slowest, Now() - before);
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
    entry.invalidated.reset();
    SetState(entry, entry.Gone());
    if (entry.by_mapper)
    {
        WantSearch(entry);
    }
}

} // namespace bmcbus::live
