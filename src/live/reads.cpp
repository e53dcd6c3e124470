// Reads of whole objects. A stock bus lets a connection wait for 128 replies at once; reads take
// half of that and queue for it, so that other calls of the connection find room.

#include "bus/bus.hpp"
#include "live/hub.hpp"
#include "log.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr size_t window = 64; // one more for each service that has none in it

// Whether it says that the object, or the interface of it, is not there.
bool SaysGone(const Failure& failure)
{
    constexpr const char* names[] = {
        "org.freedesktop.DBus.Error.UnknownObject", "org.freedesktop.DBus.Error.UnknownInterface",
        "org.freedesktop.DBus.Error.UnknownMethod", "com.tamm.bmc.Live.Error.Empty"};
    return std::ranges::find(names, failure.name) != std::end(names);
}

} // namespace

void Hub::WantRead(Entry& entry)
{
    if (entry.peer == nullptr || entry.peer->owner.empty() || entry.awaits == Awaits::Turn)
    {
        return;
    }
    if (entry.awaits == Awaits::Listing || entry.awaits == Awaits::Answer)
    {
        entry.again = true;
        return;
    }
    CancelRead(entry);
    EndSearch(entry);
    if (entry.signal != nullptr)
    {
        // Nothing is read; what is sent arrives once its rules are in force.
        RetryRules(entry);
        entry.awaits = Awaits::Rules;
        Hear(entry);
        return;
    }
    entry.awaits = Awaits::Turn;
    entry.peer->queue.push_back(&entry);
    if (entry.state() != LiveState::Live)
    {
        SetState(entry, LiveState::Reading);
    }
}

void Hub::CancelRead(Entry& entry)
{
    switch (std::exchange(entry.awaits, Awaits::Nothing))
    {
        case Awaits::Nothing:
        case Awaits::Rules:
            break;
        case Awaits::Turn:
            std::erase(entry.peer->queue, &entry);
            break;
        case Awaits::Listing:
            std::erase(entry.peer->listed, &entry);
            break;
        case Awaits::Answer:
            delete std::exchange(entry.read, nullptr);
            --in_flight_;
            --entry.peer->reading;
            break;
        case Awaits::Pause:
            std::erase(pausing_, &entry);
            break;
    }
    entry.again = false;
}

void Hub::Flush()
{
    flush_ = false;
    if (!usable())
    {
        return;
    }
    if (detail::Hub* const calls = detail::Hub::Find(bus()))
    {
        calls->Set(alarm_, alarm_.at); // on the loop that the connection is attached to by now
    }
    Search();
    for (auto& [name, peer] : peers_)
    {
        FlushPeer(peer);
    }
}

// A service that hangs must not keep the others from being read.
bool Hub::HasRoom(const Peer& peer) const
{
    return in_flight_ < window || (peer.reading == 0 && in_flight_ < window + window / 2);
}

void Hub::FlushPeer(Peer& peer)
{
    if (peer.question)
    {
        return;
    }
    if (std::exchange(peer.uncovered, false))
    {
        Cover(peer);
    }
    if (peer.listing)
    {
        return;
    }
    const bool sets = WantsSetList(peer);
    if (!peer.owner.empty() && (sets || (peer.queue.size() > worthListing && !peer.singly)))
    {
        if (!HasRoom(peer) || List(peer))
        {
            return;
        }
        SetsListed(peer, false);
    }
    while (!peer.queue.empty() && HasRoom(peer))
    {
        Entry& entry = *peer.queue.front();
        peer.queue.erase(peer.queue.begin());
        SendRead(entry);
    }
    peer.singly = peer.singly && !peer.queue.empty();
}

void Hub::SendRead(Entry& entry)
{
    RetryRules(entry);
    auto read = std::make_unique<Read>(Read{this, &entry, {}});
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_call_method_async(
        bus(), &slot, entry.peer->owner.c_str(), entry.path().c_str(),
        "org.freedesktop.DBus.Properties", "GetAll", OnRead, read.get(), "s", entry.interface());
    read->slot.reset(slot);
    if (result < 0)
    {
        entry.awaits = Awaits::Nothing;
        ReadFailed(entry, {"org.freedesktop.DBus.Error.Failed", std::strerror(-result)});
        return;
    }
    entry.awaits = Awaits::Answer;
    entry.read = read.release();
    ++in_flight_;
    ++entry.peer->reading;
}

int Hub::OnRead(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    const std::unique_ptr<Read> read(static_cast<Read*>(user_data));
    Hub& hub = *read->hub;
    Entry& entry = *read->entry;
    const Scope scope(hub);
    entry.read = nullptr;
    entry.awaits = Awaits::Nothing;
    --hub.in_flight_;
    --entry.peer->reading;
    hub.Guard(
        [&]
        {
            hub.ReadDone(entry, answer);
            hub.Flush();
        });
    return 1;
}

void Hub::ReadDone(Entry& entry, sd_bus_message* answer)
{
    if (const sd_bus_error* error = sd_bus_message_get_error(answer))
    {
        ReadFailed(entry, FailureOf(error));
    }
    else
    {
        Take(entry, answer);
    }
}

// A whole read: all properties of one moment, or nothing of it.
void Hub::Take(Entry& entry, sd_bus_message* values)
{
    const bool listed = std::exchange(entry.awaits, Awaits::Nothing) == Awaits::Listing;
    if (const Rule* rule = Uncovered(entry))
    {
        // What changes would not be heard of.
        Require(sd_bus_message_skip(values, "a{sv}"), "sd_bus_message_skip");
        ReadFailed(entry, rule->failure());
        return;
    }
    try
    {
        decoder_.Read(values, entry);
    }
    catch (const std::exception& error)
    {
        ReadFailed(entry, {"org.freedesktop.DBus.Error.InvalidSignature", error.what()});
        return;
    }
    if (!decoder_.refusal().empty())
    {
        // Of a live object the rest is as good as a signal; what was refused stays as it was.
        if (entry.state() == LiveState::Live)
        {
            NoteChanges(entry, decoder_.Store(entry, false));
        }
        ReadFailed(entry, {"org.freedesktop.DBus.Error.InvalidSignature", decoder_.refusal()});
        return;
    }
    if (decoder_.empty() && !entry.properties->interface->properties.empty())
    {
        if (listed)
        {
            WantRead(entry); // there it is, without its values: asked for by itself
            return;
        }
        ReadFailed(entry, {"com.tamm.bmc.Live.Error.Empty", "a read brought no property"});
        return;
    }
    ++entry.reads;
    entry.failures = 0;
    entry.again = false;
    entry.failure.reset();
    const std::span<const uint16_t> changed = decoder_.Store(entry, true);
    const bool fresh = entry.set != nullptr && !entry.added;
    SetState(entry, LiveState::Live);
    if (!fresh)
    {
        NoteChanges(entry, changed);
    }
}

void Hub::ReadFailed(Entry& entry, Failure failure)
{
    ++entry.reads;
    const bool news = entry.failure == nullptr || entry.failure->name != failure.name;
    const bool gone = SaysGone(failure);
    if (news && !gone)
    {
        BMCBUS_LOG(error, "cannot read %s at %s of %s: %s: %s", entry.interface(),
                   entry.path().c_str(), entry.peer->name.c_str(), failure.name.c_str(),
                   failure.text.c_str());
    }
    entry.failure = std::make_unique<Failure>(std::move(failure));
    if (!usable())
    {
        return;
    }
    if (std::exchange(entry.again, false))
    {
        WantRead(entry);
        return;
    }
    if (gone)
    {
        ObjectGone(entry);
        if (entry.hub == nullptr)
        {
            return; // it was a member of a set
        }
        // Where there is a manager it will say when the object comes.
        if (entry.peer->manages && IsBelow(entry.path(), entry.peer->manager))
        {
            return;
        }
    }
    Pause(entry);
}

// A message to the daemon whose answer makes room for what was asked for until then to go together:
// one that every bus's policy allows, as it does not allow a ping.
void Hub::Tick()
{
    if (tick_ || !usable())
    {
        return;
    }
    sd_bus_slot* slot = nullptr;
    static_cast<void>(sd_bus_call_method_async(bus(), &slot, "org.freedesktop.DBus",
                                               "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                               "GetId", OnTick, this, nullptr));
    tick_.reset(slot);
}

int Hub::OnTick(sd_bus_message* /*answer*/, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Hub& hub = *static_cast<Hub*>(user_data);
    const Scope scope(hub);
    hub.tick_.reset();
    hub.Guard([&] { hub.Flush(); });
    return 1;
}

} // namespace bmcbus::live
