// The proxies and subscribers that are alive, with the places that they follow; values are compared
// with what the services have.

#include "objects.hpp"

#include "classes.hpp"

#include <object_mapper.hpp>

#include <algorithm>

namespace soak
{
namespace
{

constexpr size_t mostLive = 80;

// Names of the members in the order in which the classes have them.
std::vector<std::string> MemberNames(const Kind& kind)
{
    const kit::InterfaceDescription description = kit::FindInterface(kind.interface);
    std::vector<std::string> names;
    if (kind.signal.empty())
    {
        for (const auto& property : description.properties)
        {
            names.push_back(property.name);
        }
        return names;
    }
    for (const auto& argument : description.Signal(kind.signal)->arguments)
    {
        names.push_back(argument.name);
    }
    return names;
}

// The last signal of each object and class, recorded apart from the library.
std::map<std::string, kit::Value> Arguments(kit::Monitor& monitor, const Live& object,
                                            const std::vector<std::string>& names)
{
    const auto messages = monitor.Messages(
        [&](const kit::WireMessage& message)
        {
            return message.type == "signal" && message.member == object.kind->signal &&
                   message.path == object.place->path;
        });
    std::map<std::string, kit::Value> sent;
    for (size_t i = 0; !messages.empty() && i < names.size(); ++i)
    {
        sent.emplace(names[i], messages.back().values.at(i));
    }
    return sent;
}

} // namespace

Objects::Objects(World& around, Random& choices) : world(around), random(choices), kinds(Classes())
{
    for (Kind& kind : kinds)
    {
        for (const auto& [path, services] :
             ObjectMapper::Wrappers::GetSubTree("/", 0, {kind.interface}))
        {
            kind.places.push_back({path, services.begin()->first});
        }
        Require(!kind.places.empty(), "no object has " + kind.interface);
    }
}

Objects::~Objects()
{
    ReleaseAll();
}

Kind& Objects::AnyKind()
{
    return random.From(kinds);
}

Kind& Objects::AnyCached()
{
    Kind* kind = nullptr;
    do
    {
        kind = &AnyKind();
    } while (!kind->signal.empty());
    return *kind;
}

bool Objects::Up(const Place& place) const
{
    return world.Up(place.service);
}

void Objects::Create()
{
    if (live.size() >= mostLive)
    {
        Release();
    }
    Create(AnyKind());
}

void Objects::Create(Kind& kind)
{
    const Place& place = random.From(kind.places);
    live.push_back(kind.make(random, place));
    live.back()->kind = &kind;
    live.back()->place = &place;
}

void Objects::CreateOneOfEach()
{
    for (Kind& kind : kinds)
    {
        Create(kind);
    }
}

void Objects::CreateForOneSignal()
{
    const Kind& kind = AnyKind();
    kind.makeForOneSignal(kind.places.at(random.Below(kind.places.size())));
}

void Objects::CreateAndRelease()
{
    Kind& kind = AnyCached();
    const Place& place = random.From(kind.places);
    const bool late = Up(place);
    if (late)
    {
        world.Control("AnswerLate", {place.service, "GetAll", uint32_t{1}});
    }
    for (size_t i = random.Between(1, 4); i > 0; --i)
    {
        kind.make(random, place);
    }
    if (late)
    {
        world.Control("AnswerAll", {place.service});
    }
}

void Objects::Release()
{
    if (!live.empty())
    {
        std::swap(random.From(live), live.back());
        live.pop_back();
    }
}

void Objects::ReleaseAll()
{
    for (const auto& object : live)
    {
        object->Forget();
    }
    live.clear();
    for (const Kind& kind : kinds)
    {
        kind.cleanup();
    }
}

void Objects::ReadSome()
{
    for (size_t i = 0; i < live.size(); i += 7)
    {
        Require(!live[i]->Values().empty(), "an object without values");
    }
}

void Objects::AnnounceLossAndReturn()
{
    const auto proxy = std::find_if(live.begin(), live.end(),
                                    [this](const auto& object) {
                                        return object->kind->signal.empty() && Up(*object->place) &&
                                               object->Ready();
                                    });
    if (proxy == live.end())
    {
        return;
    }
    Live& object = **proxy;
    const std::string& path = object.place->path;
    world.Control("AnnounceRemoved",
                  {kit::Path{path}, std::vector<std::string>{object.kind->interface}});
    world.Wait("an object without its interface is not ready", [&] { return !object.Ready(); });
    world.Control("AnnounceAdded", {kit::Path{path}});
    world.Wait("an object whose interface is back is ready", [&] { return object.Ready(); });
}

Objects::Sent Objects::Properties(const Kind& kind, const Place& place)
{
    return world
        .Call(place.service, place.path, "org.freedesktop.DBus.Properties", "GetAll",
              {kind.interface})
        .at(0)
        .Get<Sent>();
}

size_t Objects::Compare(Live& object, const std::vector<std::string>& names, const Sent& sent)
{
    const std::vector<Kept> values = object.Values();
    const std::string where = object.kind->interface + " at " + object.place->path;
    Require(values.size() == names.size(), where + " has another number of members");
    for (size_t i = 0; i < names.size(); ++i)
    {
        const auto found = sent.find(names[i]);
        Require(found != sent.end(), where + ": the service has no " + names[i]);
        const kit::Value expected = values[i].keep(found->second);
        Require(values[i].value == expected, where + ": " + names[i] + " is " +
                                                 values[i].value.Text() + " instead of " +
                                                 expected.Text());
    }
    return names.size();
}

// An object that looks for its service may be ready by a signal before it has read its values.
void Objects::AwaitFirstReads()
{
    world.Call(kit::mapperName, kit::mapperPath, "org.freedesktop.DBus.Peer", "Ping");
    Require(kit::DispatchPending(world.Connection()), "the bus does not answer");
    world.Wait("all proxies are ready",
               [this]
               {
                   return std::all_of(live.begin(), live.end(),
                                      [](const auto& object)
                                      { return !object->kind->signal.empty() || object->Ready(); });
               });
}

size_t Objects::Compare()
{
    AwaitFirstReads();
    kit::Monitor monitor;
    world.Control("Step");
    // A service's answer comes after its signals, and after its earlier answers.
    std::map<std::pair<const Kind*, const Place*>, Sent> sent;
    for (const auto& object : live)
    {
        Sent& values = sent[{object->kind, object->place}];
        if (object->kind->signal.empty())
        {
            values = Properties(*object->kind, *object->place);
            continue;
        }
        world.Call(object->place->service, object->place->path, "org.freedesktop.DBus.Peer",
                   "Ping");
        values = Arguments(monitor, *object, MemberNames(*object->kind));
    }
    Require(kit::DispatchPending(world.Connection()), "the bus does not answer");
    size_t compared = 0;
    for (const auto& object : live)
    {
        const Sent& values = sent[{object->kind, object->place}];
        const bool silent = !object->kind->signal.empty() && values.empty();
        compared += silent ? 0 : Compare(*object, MemberNames(*object->kind), values);
    }
    return compared;
}

std::vector<std::string> Objects::Services() const
{
    std::vector<std::string> services;
    for (const Kind& kind : kinds)
    {
        for (const Place& place : kind.places)
        {
            services.push_back(place.service);
        }
    }
    std::sort(services.begin(), services.end());
    services.erase(std::unique(services.begin(), services.end()), services.end());
    return services;
}

const Place& Objects::Fans() const
{
    return kinds.front().places.front();
}

} // namespace soak
