// All objects of a service read by one GetManagedObjects. The path of its object manager is known
// from one of its signals or from the object mapper; where neither has told, it is guessed.

#include "bus/bus.hpp"
#include "bus/object_mapper_internal.hpp"
#include "live/hub.hpp"
#include "live/set.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr const char* managerInterface = "org.freedesktop.DBus.ObjectManager";

} // namespace

bool IsBelow(std::string_view path, std::string_view manager)
{
    return manager == "/" || (path.starts_with(manager) &&
                              (path.size() == manager.size() || path[manager.size()] == '/'));
}

std::string CommonPath(std::string common, const std::vector<Entry*>& entries)
{
    for (const Entry* entry : entries)
    {
        while (!IsBelow(entry->path(), common))
        {
            const size_t slash = common.rfind('/');
            common.resize(std::max<size_t>(slash, 1));
        }
    }
    return common;
}

// One of the paths that a manager is wanted for.
std::string Hub::FirstPath(const Peer& peer) const
{
    for (const auto& set : sets_)
    {
        if (set->peer == &peer && set->listed)
        {
            return set->root;
        }
    }
    return !peer.queue.empty()     ? peer.queue.front()->path()
           : !peer.entries.empty() ? peer.entries.front()->path()
                                   : "/";
}

// Where the manager may stand; empty: nowhere else. The objects of a set that no mapper can name
// are found by their manager or not at all, so it is looked for on every ancestor.
std::string Hub::NextGuess(Peer& peer) const
{
    std::string path = CommonPath(FirstPath(peer), peer.queue);
    if (peer.guesses > 0 && peer.no_mapper && WantsSetList(peer))
    {
        for (int i = 0; i < peer.guesses; ++i)
        {
            if (path == "/")
            {
                return {};
            }
            path.resize(std::max<size_t>(path.rfind('/'), 1));
        }
    }
    else if (peer.guesses > 0)
    {
        path.assign(peer.guesses == 1 && path != "/" ? 1 : 0, '/');
    }
    if (!path.empty())
    {
        ++peer.guesses;
    }
    return path;
}

// Its present owner has a manager there; of one below another the upper lists more.
void Hub::ManagerIs(Peer& peer, const std::string& path)
{
    peer.manages = true;
    if (peer.manager.empty() || IsBelow(peer.manager, path))
    {
        peer.manager = path;
    }
}

bool Hub::List(Peer& peer)
{
    if (!peer.manager.empty())
    {
        return AskManager(peer, peer.manager);
    }
    if (!std::exchange(peer.asked_mapper, true) && AskMapperForManager(peer))
    {
        return true;
    }
    const std::string guess = NextGuess(peer);
    if (!guess.empty() && AskManager(peer, guess))
    {
        return true;
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
    Hub& hub = *peer.hub;
    const Scope scope(hub);
    hub.Guard(
        [&]
        {
            const bool failed = sd_bus_message_get_error(answer) != nullptr;
            if (!failed)
            {
                hub.Guard([&] { hub.ReadList(peer, answer); });
            }
            else if (peer.manager == peer.asked)
            {
                peer.manager.clear();
            }
            // What it did not bring is asked for anew: elsewhere if it brought nothing at all.
            peer.singly = peer.manager == peer.asked;
            if (peer.singly)
            {
                // What members hold is read after they are listened to: by another list if they are
                // many.
                const size_t known = peer.queue.size();
                hub.SetsListed(peer, true);
                peer.singly = peer.queue.size() <= known + worthListing;
            }
            std::vector<Entry*> missing = peer.listed;
            std::erase_if(missing, [](Entry* entry) { return entry->awaits != Awaits::Listing; });
            hub.EndListing(peer);
            for (Entry* entry : missing)
            {
                hub.WantRead(*entry);
            }
            hub.Flush();
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
    if (wanted)
    {
        ManagerIs(peer, peer.asked);
        ReadInterfaces(peer, path, answer);
        if (!WantsSetList(peer))
        {
            return;
        }
        Require(sd_bus_message_rewind(answer, 0), "sd_bus_message_rewind");
        Require(sd_bus_message_skip(answer, "o"), "sd_bus_message_skip");
    }
    if (WantsSetList(peer))
    {
        Listed(peer, path, answer);
        return;
    }
    Require(sd_bus_message_skip(answer, "a{sa{sv}}"), "sd_bus_message_skip");
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
    Hub& hub = *peer.hub;
    const Scope scope(hub);
    hub.EndListing(peer);
    hub.Guard(
        [&]
        {
            const sd_bus_error* const error = sd_bus_message_get_error(answer);
            peer.no_mapper = error != nullptr &&
                             (sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) != 0 ||
                              sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) != 0);
            if (error == nullptr)
            {
                Tree tree;
                client::Read(answer, tree);
                hub.TakeManager(peer, tree);
            }
            hub.Flush();
        });
    return 1;
}

} // namespace bmcbus::live
