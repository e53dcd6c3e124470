// All objects of a service with one GetManagedObjects. Where its manager stands, one of its signals
// or the object mapper has told; else there are two guesses.

#include "bus/bus.hpp"
#include "bus/object_mapper_internal.hpp"
#include "live/hub.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr const char* managerInterface = "org.freedesktop.DBus.ObjectManager";

// The longest path that all of them are at or below.
std::string CommonPath(const std::vector<Entry*>& entries)
{
    std::string common = entries.front()->path();
    for (const Entry* entry : entries)
    {
        while (common != "/" && entry->path() != common && !entry->path().starts_with(common + "/"))
        {
            const size_t slash = common.rfind('/');
            common.resize(std::max<size_t>(slash, 1));
        }
    }
    return common;
}

} // namespace

bool Hub::List(Peer& peer)
{
    constexpr uint8_t guesses = 2;
    if (in_flight_ >= 64)
    {
        return false;
    }
    if (!peer.manager.empty())
    {
        return AskManager(peer, peer.manager);
    }
    if (!std::exchange(peer.asked_mapper, true) && AskMapperForManager(peer))
    {
        return true;
    }
    while (peer.guesses < guesses)
    {
        const std::string common = CommonPath(peer.queue);
        const std::string guess = peer.guesses++ == 0 ? common : "/";
        if ((guess != common || peer.guesses == 1) && AskManager(peer, guess))
        {
            return true;
        }
    }
    peer.singly = true;
    return false;
}

bool Hub::AskManager(Peer& peer, const std::string& manager)
{
    sd_bus_slot* slot = nullptr;
    const int result =
        sd_bus_call_method_async(bus(), &slot, peer.owner.c_str(), manager.c_str(),
                                 managerInterface, "GetManagedObjects", OnListing, &peer, nullptr);
    if (result < 0)
    {
        return false;
    }
    peer.listing.reset(slot);
    peer.asked = manager;
    ++in_flight_;
    peer.listed = std::exchange(peer.queue, {});
    for (Entry* entry : peer.listed)
    {
        RetryRules(*entry);
        entry->awaits = Awaits::Listing;
    }
    return true;
}

void Hub::EndListing(Peer& peer)
{
    if (peer.listing)
    {
        peer.listing.reset();
        --in_flight_;
    }
    for (Entry* entry : std::exchange(peer.listed, {}))
    {
        if (entry->awaits == Awaits::Listing)
        {
            entry->awaits = Awaits::Nothing;
        }
    }
}

int Hub::OnListing(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Peer& peer = *static_cast<Peer*>(user_data);
    Hub* const hub = Find(sd_bus_message_get_bus(answer));
    if (hub == nullptr)
    {
        return 1;
    }
    const Scope scope(*hub);
    hub->Guard(
        [&]
        {
            const bool failed = sd_bus_message_get_error(answer) != nullptr;
            if (!failed)
            {
                hub->Guard([&] { hub->ReadList(peer, answer); });
            }
            else if (peer.manager == peer.asked)
            {
                peer.manager.clear();
            }
            // What it did not bring is asked for anew: elsewhere if it brought nothing at all.
            peer.singly = peer.manager == peer.asked;
            std::vector<Entry*> missing = peer.listed;
            std::erase_if(missing, [](Entry* entry) { return entry->awaits != Awaits::Listing; });
            hub->EndListing(peer);
            for (Entry* entry : missing)
            {
                hub->WantRead(*entry);
            }
            hub->Flush();
        });
    return 1;
}

void Hub::ReadList(Peer& peer, sd_bus_message* answer)
{
    Require(sd_bus_message_enter_container(answer, 'a', "{oa{sa{sv}}}"),
            "sd_bus_message_enter_container");
    while (Require(sd_bus_message_enter_container(answer, 'e', "oa{sa{sv}}"),
                   "sd_bus_message_enter_container") > 0)
    {
        ReadObject(peer, answer);
        Require(sd_bus_message_exit_container(answer), "sd_bus_message_exit_container");
    }
}

void Hub::ReadObject(Peer& peer, sd_bus_message* answer)
{
    const char* path = nullptr;
    Require(sd_bus_message_read_basic(answer, 'o', &path), "sd_bus_message_read_basic");
    bool wanted = false;
    index_.ForEach(path,
                   [&](const Entry& entry) {
                       wanted = wanted || (entry.peer == &peer && entry.awaits == Awaits::Listing);
                   });
    if (!wanted)
    {
        Require(sd_bus_message_skip(answer, "a{sa{sv}}"), "sd_bus_message_skip");
        return;
    }
    peer.manager = peer.asked;
    ReadInterfaces(peer, path, answer);
}

void Hub::ReadInterfaces(Peer& peer, const char* path, sd_bus_message* answer)
{
    Require(sd_bus_message_enter_container(answer, 'a', "{sa{sv}}"),
            "sd_bus_message_enter_container");
    while (Require(sd_bus_message_enter_container(answer, 'e', "sa{sv}"),
                   "sd_bus_message_enter_container") > 0)
    {
        const char* interface = nullptr;
        Require(sd_bus_message_read_basic(answer, 's', &interface), "sd_bus_message_read_basic");
        bool taken = false;
        index_.ForEach(path,
                       [&](Entry& entry)
                       {
                           if (entry.peer == &peer && entry.awaits == Awaits::Listing &&
                               std::strcmp(entry.interface(), interface) == 0)
                           {
                               if (std::exchange(taken, true))
                               {
                                   // Another handle of the same object reads it, too.
                                   sd_bus_message_rewind(answer, 0);
                                   sd_bus_message_skip(answer, "s");
                               }
                               Take(entry, answer);
                           }
                       });
        if (!taken)
        {
            Require(sd_bus_message_skip(answer, "a{sv}"), "sd_bus_message_skip");
        }
        Require(sd_bus_message_exit_container(answer), "sd_bus_message_exit_container");
    }
    Require(sd_bus_message_exit_container(answer), "sd_bus_message_exit_container");
}

bool Hub::AskMapperForManager(Peer& peer)
{
    using namespace ObjectMapper::internal;
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_call_method_async(bus(), &slot, mapperService, mapperPath,
                                                mapperInterface, "GetSubTree", OnManagers, &peer,
                                                "sias", "/", 0, 1, managerInterface);
    if (result < 0)
    {
        return false;
    }
    peer.listing.reset(slot);
    ++in_flight_;
    return true;
}

int Hub::OnManagers(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Peer& peer = *static_cast<Peer*>(user_data);
    Hub* const hub = Find(sd_bus_message_get_bus(answer));
    if (hub == nullptr)
    {
        return 1;
    }
    const Scope scope(*hub);
    hub->EndListing(peer);
    hub->Guard(
        [&]
        {
            if (sd_bus_message_get_error(answer) == nullptr)
            {
                Tree tree;
                client::Read(answer, tree);
                hub->TakeManager(peer, tree);
            }
            hub->Flush();
        });
    return 1;
}

} // namespace bmcbus::live
