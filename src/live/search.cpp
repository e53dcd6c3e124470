// Who has an object: asked of the object mapper, for all that are searched at once. It may know
// late, so a question that found nothing is repeated a few times, and again whenever something
// happens that may have told the mapper more: a signal of the object, the mapper itself.
// Between these nothing is asked.

#include "bus/bus.hpp"
#include "bus/object_mapper_internal.hpp"
#include "live/hub.hpp"
#include "live/set.hpp"

#include <algorithm>
#include <set>

namespace bmcbus::live
{
namespace
{

using namespace ObjectMapper::internal;

constexpr const char* managerInterface = "org.freedesktop.DBus.ObjectManager";
constexpr uint8_t repetitions = 8; // within half a minute
constexpr size_t withRules = 16;   // objects nobody has yet that get rules of their own

// What the mapper sends when it has looked at a new service.
std::string LearnedRule()
{
    return "type='signal',interface='xyz.openbmc_project.ObjectMapper.Private',sender='" +
           std::string(mapperService) + "'";
}

MessageRef Question(sd_bus* bus, const std::set<std::string>& interfaces, const Entry* only)
{
    MessageRef call = NewCall(bus, mapperService, mapperPath, mapperInterface,
                              only != nullptr ? "GetObject" : "GetSubTree");
    client::Append(call.get(), only != nullptr ? only->path() : std::string("/"));
    if (only == nullptr)
    {
        client::Append(call.get(), int32_t{0});
    }
    client::Append(call.get(), std::vector<std::string>(interfaces.begin(), interfaces.end()));
    return call;
}

} // namespace

void Hub::WantSearch(Entry& entry)
{
    if (entry.searched || !usable())
    {
        return;
    }
    entry.searched = true;
    searched_.push_back(&entry);
    searches_ = entry.failures == 0 ? 0 : searches_; // each answer that it is gone asks less
    search_due_ = 1;
    search_again_ = search_ != nullptr;
    Tick();
}

void Hub::EndSearch(Entry& entry)
{
    if (std::exchange(entry.searched, false))
    {
        std::erase(searched_, &entry);
    }
}

void Hub::Hint()
{
    if (!Searching())
    {
        return;
    }
    searches_ = 0;
    search_due_ = 1;
    search_again_ = search_ != nullptr;
    Tick();
}

void Hub::Search()
{
    if (!Searching())
    {
        search_due_ = 0;
        FollowMapper(false);
        return;
    }
    if (search_ || search_due_ == 0 || Now() < search_due_)
    {
        return;
    }
    search_due_ = 0;
    std::set<std::string> interfaces;
    for (const Entry* entry : searched_)
    {
        interfaces.insert(entry->interface());
    }
    bool sets = false;
    for (const auto& set : sets_)
    {
        if (set->searched)
        {
            sets = true;
            interfaces.insert(set->about.interface->name);
        }
    }
    const Entry* const only = searched_.size() == 1 && !sets ? searched_.front() : nullptr;
    asked_ = only != nullptr ? only->path() : "";
    if (only == nullptr)
    {
        interfaces.insert(managerInterface);
    }
    const MessageRef call = Question(bus(), interfaces, only);
    sd_bus_slot* slot = nullptr;
    Require(sd_bus_call_async(bus(), &slot, call.get(), OnSearch, this, 0), "sd_bus_call_async");
    search_.reset(slot);
}

int Hub::OnSearch(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Hub& hub = *static_cast<Hub*>(user_data);
    const Scope scope(hub);
    hub.search_.reset();
    hub.Guard(
        [&]
        {
            if (sd_bus_message_get_error(answer) == nullptr)
            {
                hub.Found(answer);
            }
            hub.SearchAgain();
            hub.Flush();
        });
    return 1;
}

// Who may have it. Who had it last is named for a while after it has gone, so the others come
// before it, one after the other. Of a set that names its service it is `only` that one.
const std::string* Hub::NextService(const Tree::mapped_type& services, const char* interface,
                                    const Peer* last, const Peer* only)
{
    const std::string* first = nullptr;
    for (const auto& [service, interfaces] : services)
    {
        if ((only != nullptr && service != only->name) ||
            std::ranges::find(interfaces, interface) == interfaces.end())
        {
            continue;
        }
        if (last == nullptr || service > last->name)
        {
            return &service;
        }
        first = first != nullptr ? first : &service;
    }
    return first;
}

void Hub::Found(sd_bus_message* answer)
{
    Tree tree;
    if (asked_.empty())
    {
        client::Read(answer, tree);
        MembersFound(tree);
    }
    else
    {
        client::Read(answer, tree[asked_]);
    }
    for (Entry* entry : std::vector<Entry*>(searched_))
    {
        const auto at = tree.find(entry->path());
        if (at == tree.end())
        {
            continue;
        }
        if (const std::string* next = NextService(at->second, entry->interface(), entry->peer))
        {
            Peer& peer = PeerOf(*next);
            Attach(*entry, peer);
            if (peer.manager.empty())
            {
                TakeManager(peer, tree);
            }
        }
    }
}

// The deepest manager of the service that its first object is at or below.
void Hub::TakeManager(Peer& peer, const Tree& tree)
{
    const std::string first = FirstPath(peer);
    for (const auto& [path, services] : tree)
    {
        const auto found = services.find(peer.name);
        const bool above = path == "/" || first == path || first.starts_with(path + "/");
        if (above && found != services.end() &&
            std::ranges::find(found->second, managerInterface) != found->second.end())
        {
            peer.manager = path;
        }
    }
}

void Hub::SearchAgain()
{
    // An entry whose service is being asked who owns it may be found by that.
    const auto undecided = [](const Entry* entry)
    { return entry->peer == nullptr || !entry->peer->question; };
    if (std::ranges::none_of(searched_, undecided) && !SearchesSets())
    {
        return;
    }
    if (mapper_rules_.empty())
    {
        // Once more at once: something may have come before the rules that tell of it.
        FollowMapper(true);
        search_due_ = 1;
    }
    else if (std::exchange(search_again_, false))
    {
        search_due_ = 1;
    }
    else if (searches_ < repetitions)
    {
        search_due_ = Now() + PauseAfter(searches_++);
        Arm();
    }
    FollowSearched();
}

// What nobody has yet is heard of by rules of its own, and what is more than these by one for all
// that is announced near it.
void Hub::FollowSearched()
{
    std::vector<Entry*> bare;
    for (Entry* entry : searched_)
    {
        if (entry->peer != nullptr || entry->changes_rule != nullptr)
        {
            continue;
        }
        if (searched_.size() <= withRules && paths_ < withRules)
        {
            UsePathRules(*entry);
        }
        else
        {
            bare.push_back(entry);
        }
    }
    Rule* before = std::exchange(searched_rule_, nullptr);
    if (!bare.empty())
    {
        std::string near = CommonPath(bare.front()->path(), bare);
        near.resize(std::max<size_t>(near.rfind('/'), 1));
        searched_rule_ = rules_.Use(BelowManagerRule(near));
    }
    rules_.Drop(before);
}

// The name has no owner. Members of sets may be another's, whom the mapper knows or will know.
void Hub::SearchElsewhere(const Peer& peer)
{
    for (const Entry* entry : peer.entries)
    {
        if (entry->set != nullptr && entry->set->peer == nullptr)
        {
            entry->set->searched = true;
        }
    }
    if (!search_)
    {
        SearchAgain();
    }
}

bool Hub::SearchesSets() const
{
    return std::ranges::any_of(sets_, [](const auto& set) { return set->searched; });
}

// The mapper's coming, and what it says when it has learned of a service, are heard while something
// is searched, and always for sets: only it tells of objects without a manager. Every new name of
// the bus would be too many.
void Hub::FollowMapper(bool follow)
{
    if (follow && mapper_rules_.empty())
    {
        mapper_rules_ = {rules_.Use(OwnerRule(mapperService)), rules_.Use(LearnedRule())};
    }
    if (!follow)
    {
        rules_.Drop(searched_rule_);
    }
    if (!follow && std::ranges::none_of(sets_, [](const auto& set) { return set->by_mapper; }))
    {
        for (Rule*& rule : mapper_rules_)
        {
            rules_.Drop(rule);
        }
        mapper_rules_.clear();
    }
}

void Hub::MapperLearned()
{
    for (const auto& set : sets_)
    {
        set->searched = set->searched || set->by_mapper;
    }
    Hint();
}

} // namespace bmcbus::live
