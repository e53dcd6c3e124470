// What arrives. Every message of the connection comes by here, so the first tests are cheap and
// pass over what is about no followed object.

#include "bus/bus.hpp"
#include "bus/object_mapper_internal.hpp"
#include "client/signal.hpp"
#include "live/anchor.hpp"
#include "live/set.hpp"
#include "log.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr const char* standard = "org.freedesktop.DBus";
constexpr size_t standardSize = 20;

bool From(sd_bus_message* message, const std::string& owner)
{
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && !owner.empty() && owner == sender;
}

bool IsMember(sd_bus_message* message, const char* member)
{
    return std::strcmp(sd_bus_message_get_member(message), member) == 0;
}

} // namespace

// Lets every message pass on to the handlers of others.
int Hub::OnMessage(sd_bus_message* message, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Hub* const hub = static_cast<Anchor*>(user_data)->hub;
    if (hub == nullptr)
    {
        return 0;
    }
    uint8_t type = 0;
    sd_bus_message_get_type(message, &type);
    const char* interface = sd_bus_message_get_interface(message);
    if (type != SD_BUS_MESSAGE_SIGNAL || interface == nullptr)
    {
        return hub->silence_ && interface != nullptr && std::strcmp(interface, silence) == 0 ? 1
                                                                                             : 0;
    }
    const Scope scope(*hub, Entrance::Filter);
    hub->Guard([&] { hub->Signal(message, interface); });
    return 0;
}

void Hub::Signal(sd_bus_message* message, const char* interface)
{
    if (std::strncmp(interface, standard, standardSize) == 0)
    {
        const char* rest = interface + standardSize;
        if (std::strcmp(rest, ".Properties") == 0 && IsMember(message, "PropertiesChanged"))
        {
            PropertiesChanged(message);
        }
        else if (std::strcmp(rest, ".ObjectManager") == 0)
        {
            ObjectManager(message);
        }
        else if (*rest == '\0' && IsMember(message, "NameOwnerChanged"))
        {
            NameOwnerChanged(message);
        }
        else if (std::strcmp(rest, ".Local") == 0 && IsMember(message, "Disconnected"))
        {
            Ended(true);
            return;
        }
    }
    else if (std::strcmp(interface, "xyz.openbmc_project.ObjectMapper.Private") == 0)
    {
        MapperLearned();
    }
    else if (signals_ > 0)
    {
        Argued(message, interface);
    }
    CheckDue();
    if (!tick_ && flush_)
    {
        Flush();
    }
}

void Hub::PropertiesChanged(sd_bus_message* message)
{
    const char* interface = nullptr;
    Require(sd_bus_message_read_basic(message, 's', &interface), "sd_bus_message_read_basic");
    Entry* stranger_to = nullptr;
    Entry* unknown_to = nullptr;
    bool taken = false;
    index_.ForEach(sd_bus_message_get_path(message),
                   [&](Entry& entry)
                   {
                       if (entry.signal != nullptr ||
                           std::strcmp(entry.interface(), interface) != 0)
                       {
                           return;
                       }
                       if (entry.peer == nullptr || entry.peer->owner.empty())
                       {
                           unknown_to = &entry;
                       }
                       else if (!From(message, entry.peer->owner))
                       {
                           stranger_to = &entry;
                       }
                       else if (taken)
                       {
                           sd_bus_message_rewind(message, 1);
                           sd_bus_message_skip(message, "s");
                           ApplyChanges(entry, message);
                       }
                       else
                       {
                           taken = true;
                           ApplyChanges(entry, message);
                       }
                   });
    if (taken)
    {
        return;
    }
    if (stranger_to != nullptr)
    {
        ++stranger_to->strangers;
    }
    else if (unknown_to == nullptr && many_ > 0)
    {
        const Peer* const peer = OwnedBy(sd_bus_message_get_sender(message));
        needless_ += peer != nullptr && peer->many ? 1 : 0;
    }
    if (unknown_to != nullptr && unknown_to->by_mapper)
    {
        Hint();
    }
}

// Before the answer to a whole read nothing is applied: the answer will be newer than this.
void Hub::ApplyChanges(Entry& entry, sd_bus_message* message)
{
    ++entry.signals;
    {
        const std::lock_guard lock(entry.mutex());
        client::CountSignal(entry.about.signal_count(entry.object));
    }
    if (entry.state() != LiveState::Live)
    {
        if (entry.awaits == Awaits::Nothing ||
            (entry.awaits == Awaits::Pause && entry.state() != LiveState::Reading))
        {
            // Its service says that it is there, after all.
            WantRead(entry);
            flush_ = true;
        }
        return;
    }
    decoder_.Read(message, entry);
    decoder_.ReadInvalidated(message, entry);
    NoteChanges(entry, decoder_.Store(entry, false));
    if (decoder_.invalidates())
    {
        WantRead(entry);
        Tick();
    }
}

// Signals of a manager, whatever its path; the object is their argument.
void Hub::ObjectManager(sd_bus_message* message)
{
    const bool added = IsMember(message, "InterfacesAdded");
    if (!added && !IsMember(message, "InterfacesRemoved"))
    {
        return;
    }
    const char* path = nullptr;
    Require(sd_bus_message_read_basic(message, 'o', &path), "sd_bus_message_read_basic");
    std::vector<Entry*> theirs;
    bool hint = false;
    index_.ForEach(path,
                   [&](Entry& entry)
                   {
                       if (entry.peer == nullptr || entry.peer->owner.empty())
                       {
                           hint = hint || (entry.by_mapper && added);
                       }
                       else if (From(message, entry.peer->owner))
                       {
                           ManagerIs(*entry.peer, sd_bus_message_get_path(message));
                           theirs.push_back(&entry);
                       }
                       else
                       {
                           ++entry.strangers;
                           hint = hint || (entry.searched && added);
                       }
                   });
    if (!theirs.empty())
    {
        added ? InterfacesAdded(message, theirs) : InterfacesRemoved(message, theirs);
    }
    if (added && !sets_.empty())
    {
        Require(sd_bus_message_rewind(message, 1), "sd_bus_message_rewind");
        Require(sd_bus_message_skip(message, "o"), "sd_bus_message_skip");
        hint = MembersAdded(message, path) || hint;
    }
    if (hint)
    {
        Hint();
    }
}

void Hub::InterfacesAdded(sd_bus_message* message, const std::vector<Entry*>& entries)
{
    Require(sd_bus_message_enter_container(message, 'a', "{sa{sv}}"),
            "sd_bus_message_enter_container");
    while (Require(sd_bus_message_enter_container(message, 'e', "sa{sv}"),
                   "sd_bus_message_enter_container") > 0)
    {
        const char* interface = nullptr;
        Require(sd_bus_message_read_basic(message, 's', &interface), "sd_bus_message_read_basic");
        for (Entry* entry : entries)
        {
            if (std::strcmp(entry->interface(), interface) == 0)
            {
                Announced(*entry, message);
                sd_bus_message_rewind(message, 0);
                sd_bus_message_skip(message, "s");
            }
        }
        Require(sd_bus_message_skip(message, "a{sv}"), "sd_bus_message_skip");
        Require(sd_bus_message_exit_container(message), "sd_bus_message_exit_container");
    }
}

// The values of the signal may be a part of them, so an object that was not live is read.
void Hub::Announced(Entry& entry, sd_bus_message* values)
{
    ++entry.signals;
    if (entry.state() != LiveState::Live || entry.signal != nullptr)
    {
        WantRead(entry);
        Tick();
        return;
    }
    decoder_.Read(values, entry);
    NoteChanges(entry, decoder_.Store(entry, false));
}

void Hub::InterfacesRemoved(sd_bus_message* message, const std::vector<Entry*>& entries)
{
    std::vector<std::string> names;
    client::Read(message, names);
    for (Entry* entry : entries)
    {
        if (std::ranges::find(names, entry->interface()) != names.end())
        {
            ++entry->signals;
            ObjectGone(*entry);
            if (entry->set != nullptr && entry->set->peer == nullptr)
            {
                WantSetSearch(*entry->set); // another service may have it, too
            }
        }
    }
}

void Hub::NameOwnerChanged(sd_bus_message* message)
{
    if (!From(message, standard))
    {
        return;
    }
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    Require(sd_bus_message_read(message, "sss", &name, &before, &now), "sd_bus_message_read");
    if (std::strcmp(name, ObjectMapper::internal::mapperService) == 0 && *now != '\0')
    {
        MapperLearned();
    }
    const auto found = peers_.find(name);
    if (found != peers_.end())
    {
        OwnerIs(found->second, now);
        flush_ = true;
    }
}

// A signal that carries data.
void Hub::Argued(sd_bus_message* message, const char* interface)
{
    const char* path = sd_bus_message_get_path(message);
    index_.ForEach(path,
                   [&](Entry& entry)
                   {
                       if (entry.signal == nullptr || !IsMember(message, entry.signal->member) ||
                           std::strcmp(entry.interface(), interface) != 0)
                       {
                           return;
                       }
                       if (entry.peer == nullptr || !From(message, entry.peer->owner))
                       {
                           ++entry.strangers;
                           return;
                       }
                       sd_bus_message_rewind(message, 1);
                       Guard([&] { ApplyArguments(entry, message); });
                   });
}

// All arguments or none: the last ones stay where these have other types.
void Hub::ApplyArguments(Entry& entry, sd_bus_message* message)
{
    std::string wanted;
    for (const client::Field& field : entry.about.fields.list)
    {
        wanted += entry.about.fields.TypeOf(field).signature;
    }
    const char* got = sd_bus_message_get_signature(message, 1);
    if (wanted != got)
    {
        ++entry.refused;
        ++entry.missed;
        BMCBUS_LOG(error, "refused %s.%s at %s: types %s instead of %s", entry.interface(),
                   entry.signal->member, entry.path().c_str(), got, wanted.c_str());
        Note(entry, What::Missed);
        return;
    }
    std::vector<client::Value> values(entry.about.fields.list.size());
    for (size_t i = 0; i < values.size(); ++i)
    {
        const client::Type& type = entry.about.fields.TypeOf(entry.about.fields.list[i]);
        type.read(message, values[i].Emplace(type));
    }
    ++entry.signals;
    {
        const std::lock_guard lock(entry.mutex());
        for (size_t i = 0; i < values.size(); ++i)
        {
            const client::Field& field = entry.about.fields.list[i];
            entry.about.fields.TypeOf(field).move(client::Place(entry.object, field.value_offset),
                                                  values[i].get());
            entry.about.IsSet(entry.object, i) = true;
        }
        entry.about.ready(entry.object) = true;
        client::CountSignal(entry.about.signal_count(entry.object));
    }
    Note(entry, What::Arrived);
}

// Everything is lost, once; what still waits for an answer never gets it. The objects keep their
// hub until their handles end, so that they can tell.
void Hub::Ended(bool in_filter)
{
    const Failure reason = {"org.freedesktop.DBus.Error.Disconnected", "the connection has ended"};
    BMCBUS_LOG(error, "%s", reason.text.c_str());
    searched_.clear();
    for (const auto& set : sets_)
    {
        set->added_rule = nullptr;
        set->searched = set->listed = false;
    }
    mapper_rules_.clear();
    searched_rule_ = nullptr;
    owners_due_ = 0;
    index_.ForAll(
        [&](Entry& entry)
        {
            CancelRead(entry);
            entry.changes_rule = entry.manager_rule = nullptr;
            entry.searched = false;
            entry.failure = std::make_unique<Failure>(reason);
            Lose(entry);
        });
    for (auto& [name, peer] : peers_)
    {
        EndListing(peer);
        peer.owner.clear();
        peer.owner_rule = peer.manager_rule = nullptr;
        peer.changes_rules.clear();
    }
    paths_ = 0;
    rules_.Forget();
    Retire(in_filter);
    bus_.reset();
}

} // namespace bmcbus::live
