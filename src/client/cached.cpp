// Cached proxies: subscriptions, the first read, and the three signals that keep the copy current.

#include <bmcbus/client/cached.hpp>

#include "bus/bus.hpp"
#include "bus/match.hpp"
#include "bus/object_mapper_lookup.hpp"
#include "client/cached_object.hpp"
#include "client/member_log.hpp"
#include "client/signal.hpp"

#include <async_ops.hpp>
#include <object_mapper.hpp>

namespace bmcbus::client
{
namespace
{

std::string Service(CachedObject object)
{
    const std::lock_guard lock(object.mutex());
    return object.service();
}

void SetService(CachedObject object, const std::string& service)
{
    const std::lock_guard lock(object.mutex());
    object.service() = service;
}

void SetReady(CachedObject object)
{
    const std::lock_guard lock(object.mutex());
    object.ready() = true;
}

// The handlers that sd-bus calls. An exception that is not a std::exception comes from a callback
// that broke its promise; letting it unwind through sd-bus would leave the connection busy for
// ever, so it ends the process here. The object may be gone when they return.

int OnChanged(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    Changed(*static_cast<Anchor*>(anchor), message);
    return 0;
}

int OnAdded(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    Added(*static_cast<Anchor*>(anchor), message);
    return 0;
}

int OnRemoved(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    Removed(*static_cast<Anchor*>(anchor), message);
    return 0;
}

// The connection of the object's own matches, which is the one that somebody dispatches for it;
// null for an object without any.
sd_bus* OwnConnection(CachedObject object)
{
    const Slot& match = object.about().properties_changed_match(object.anchor().object());
    return match ? sd_bus_slot_get_bus(match.get()) : nullptr;
}

// The same, connected; the calling thread's in place of none. Throws Error.
BusRef OwnBus(CachedObject object)
{
    BusRef own(sd_bus_ref(OwnConnection(object)));
    if (!own)
    {
        return DefaultBus();
    }
    Require(AwaitReady(own.get()), "sd_bus_get_unique_name");
    return own;
}

void InstallMatches(sd_bus* bus, CachedObject object)
{
    Anchor& anchor = object.anchor();
    const CachedClass& about = object.about();
    const auto install =
        [&](const Member<Slot>& match, const std::string& rule, sd_bus_message_handler_t handler)
    { Require(AddMatch(bus, rule, handler, &anchor, match(anchor.object())), "sd_bus_match"); };
    install(about.properties_changed_match,
            SignalRule("PropertiesChanged", object.path(), "org.freedesktop.DBus.Properties"),
            OnChanged);
    install(about.interfaces_added_match, SignalRule("InterfacesAdded", object.path()), OnAdded);
    install(about.interfaces_removed_match, SignalRule("InterfacesRemoved", object.path()),
            OnRemoved);
}

constexpr const char* completion = "GetPropertiesAsyncCallback";

// The frame of the first read's completion; `store` stores all there is with StoreRead.
template <class Store>
void Complete(CachedObject object, bool success, bool empty, Store store)
{
    try
    {
        CLIENT_LOG(trace, object.label(), completion, "success=%d", success ? 1 : 0);
        if (!success)
        {
            return;
        }
        if (empty)
        {
            CLIENT_LOG(trace, object.label(), completion, "empty");
            return;
        }
        store();
        SetReady(object);
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), completion, "", error);
    }
}

void LogRead(CachedObject object, const char* name)
{
    CLIENT_LOG(trace, object.label(), completion, "pname=[%s]", name);
}

// The reply to the asynchronous first read.
int OnGetAll(sd_bus_message* message, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Anchor& anchor = *static_cast<Anchor*>(user_data);
    anchor.Answered();
    struct Answer
    {
        CachedObject object;
        PropertyMap values;
    } answer{CachedObject(anchor), PropertyMap(CachedObject(anchor).interface())};
    return Async::Ops::detail::HandleReply(
        message, {.self = &answer,
                  .decode = [](void* self, sd_bus_message* reply)
                  { static_cast<Answer*>(self)->values.Read(reply); },
                  .complete =
                      [](void* self, bool success)
                  {
                      auto& object = static_cast<Answer*>(self)->object;
                      auto& values = static_cast<Answer*>(self)->values;
                      Complete(object, success, values.empty(),
                               [&] {
                                   StoreAll(object, values, true,
                                            [&](const char* name) { LogRead(object, name); });
                               });
                  }});
}

void OnService(bool success, std::string& found, void* user_data)
{
    Anchor& anchor = *static_cast<Anchor*>(user_data);
    anchor.Answered();
    ServiceFound(anchor, success, found);
}

void ReadNow(sd_bus* bus, CachedObject object)
{
    const MessageRef call =
        NewCall(bus, Service(object), object.path(), "org.freedesktop.DBus.Properties", "GetAll");
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, object.interface().name);
    const MessageRef reply = bmcbus::ReplyTo(bus, call.get());
    PropertyMap values(object.interface());
    values.Read(reply.get());
    if (!values.empty())
    {
        StoreAll(object, values, true, [](const char* /*name*/) {});
        SetReady(object);
    }
}

using Update = void (*)(CachedObject object, sd_bus_message* message);

// What the three signal handlers share: the update happens under the object's mutex, the callbacks
// run without it.
void HandleSignal(CachedObject object, sd_bus_message* message, const char* enter,
                  const char* function, Update update)
{
    CLIENT_LOG_FORMAT(trace, object.label(), function, enter);
    Callbacks callbacks;
    try
    {
        const std::lock_guard lock(object.mutex());
        update(object, message);
        CountSignal(object.anchor().signal_count());
        callbacks = object.anchor().callbacks();
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), function, "", error);
        return;
    }
    RunCallbacks(object.anchor(), function, callbacks);
}

// What a signal brought, under the object's mutex.
void StoreSent(CachedObject object, PropertyMap& values, const char* function)
{
    StoreAll(object, values, false,
             [&](const char* name)
             { CLIENT_LOG(trace, object.label(), function, "property_name=[%s]", name); });
    object.ready() = true;
}

void UpdateChanged(CachedObject object, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackChanged";
    const char* interface = nullptr;
    ReadText(message, SD_BUS_TYPE_STRING, interface);
    CLIENT_LOG(trace, object.label(), function, "interface_name=[%s]", interface);
    if (std::strcmp(interface, object.interface().name) != 0)
    {
        SkipProperties(message);
        return;
    }
    PropertyMap values(object.interface());
    values.Read(message);
    StoreSent(object, values, function);
}

void UpdateAdded(CachedObject object, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackAdded";
    const char* path = nullptr;
    ReadText(message, SD_BUS_TYPE_OBJECT_PATH, path);
    CLIENT_LOG(trace, object.label(), function, "object_path_string=[%s]", path);
    InterfaceMap interfaces(object.interface());
    interfaces.Read(message);
    for (const char* interface : interfaces.names())
    {
        CLIENT_LOG(trace, object.label(), function, "interface_name=[%s]", interface);
        if (std::strcmp(interface, object.interface().name) == 0)
        {
            StoreSent(object, interfaces.properties(), function);
        }
    }
}

void UpdateRemoved(CachedObject object, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackRemoved";
    const char* path = nullptr;
    ReadText(message, SD_BUS_TYPE_OBJECT_PATH, path);
    CLIENT_LOG(trace, object.label(), function, "object_path_string=[%s]", path);
    std::vector<std::string> interfaces;
    Read(message, interfaces);
    for (const std::string& interface : interfaces)
    {
        CLIENT_LOG(trace, object.label(), function, "i=[%s]", interface.c_str());
        if (interface == object.interface().name)
        {
            object.ready() = false;
            object.service().clear();
            CLIENT_LOG(trace, object.label(), function, "service cleared");
        }
    }
}

} // namespace

void Construct(Anchor& anchor, const Callback& first)
{
    const CachedObject object(anchor);
    const char* const label = object.label();
    const char* const name = object.interface().short_name;
    CLIENT_LOG_FORMAT(trace, label, name, object.interface().enter);
    try
    {
        if (first.function != nullptr)
        {
            const std::lock_guard lock(object.mutex());
            anchor.callbacks().Add(first);
        }
        const BusRef bus = DefaultBus();
        CLIENT_LOG(trace, label, name, "set up callbacks and matches");
        InstallMatches(bus.get(), object);
        CLIENT_LOG(trace, label, name, "get current values");
        InitialGetAll(anchor);
    }
    catch (const std::exception& error)
    {
        LogException(label, name, "", error);
    }
    CLIENT_LOG_FORMAT(trace, label, name, object.interface().leave);
}

void InitialGetAll(Anchor& anchor)
{
    const CachedObject object(anchor);
    static constexpr const char* function = "InitialGetAll";
    try
    {
        CLIENT_LOG(trace, object.label(), function, "not using datacache");
        if (!Service(object).empty())
        {
            ServiceIsSet(anchor);
            return;
        }
        CLIENT_LOG(trace, object.label(), function, "no service set");
        if (object.use_async())
        {
            CLIENT_LOG(trace, object.label(), function, "use async");
            anchor.Await(ObjectMapper::internal::LookupServiceAsync(
                OwnConnection(object), object.path(), object.interface().name, OnService, &anchor));
            return;
        }
        CLIENT_LOG(trace, object.label(), function, "do not use async");
        std::string found;
        ObjectMapper::Wrappers::PathAndInterfaceToService(object.path(), object.interface().name,
                                                          found);
        SetService(object, found);
        if (found.empty())
        {
            CLIENT_LOG(trace, object.label(), function, "no service yet");
            return;
        }
        CLIENT_LOG(trace, object.label(), function, "found service=[%s]", found.c_str());
        ServiceIsSet(anchor);
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), function, "", error);
    }
}

void ServiceFound(Anchor& anchor, bool success, const std::string& found)
{
    const CachedObject object(anchor);
    static constexpr const char* function = "GetServiceAsyncCallback";
    try
    {
        CLIENT_LOG(trace, object.label(), function, "success=%d", success ? 1 : 0);
        if (!success)
        {
            return;
        }
        if (found.empty())
        {
            CLIENT_LOG(trace, object.label(), function, "empty");
            return;
        }
        SetService(object, found);
        CLIENT_LOG(trace, object.label(), function, "service=[%s]", found.c_str());
        ServiceIsSet(anchor);
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), function, "", error);
    }
}

void ServiceIsSet(Anchor& anchor)
{
    const CachedObject object(anchor);
    static constexpr const char* function = "ServiceIsSet";
    try
    {
        CLIENT_LOG(trace, object.label(), function, "enter");
        if (object.use_async())
        {
            CLIENT_LOG(trace, object.label(), function, "use async");
            const BusRef bus = OwnBus(object);
            anchor.Await(Async::Ops::detail::QueueGetAll(bus.get(), Service(object), object.path(),
                                                         object.interface().name, OnGetAll, &anchor,
                                                         nullptr));
            return;
        }
        CLIENT_LOG(trace, object.label(), function, "do not use async");
        const BusRef bus = OwnBus(object);
        ReadNow(bus.get(), object);
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), function, "", error);
    }
}

void PropertiesRead(Anchor& anchor, bool success, const NamedRefs& values)
{
    const CachedObject object(anchor);
    Complete(object, success, values.size == 0,
             [&]
             {
                 for (size_t left = values.size; left > 0; --left)
                 {
                     const NamedRef entry = values.next(values.position);
                     LogRead(object, entry.name.data());
                     StoreNamed(object, entry.name, true, Source(entry.value));
                 }
             });
}

void Changed(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_changed, "ObjectCallbackChanged",
                 UpdateChanged);
}

void Added(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_added, "ObjectCallbackAdded", UpdateAdded);
}

void Removed(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_removed, "ObjectCallbackRemoved",
                 UpdateRemoved);
}

} // namespace bmcbus::client
