// Cached proxies: subscriptions, and the three signals that keep the copy current. The first read
// is in cached_read.cpp.

#include <bmcbus/client/cached.hpp>

#include "bus/bus.hpp"
#include "bus/match.hpp"
#include "client/argument_order.hpp"
#include "client/cached_object.hpp"
#include "client/member_log.hpp"
#include "client/signal.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cstring>

namespace bmcbus::client
{
namespace
{

void HandleChanged(Anchor& anchor, sd_bus_message* message);
void HandleAdded(Anchor& anchor, sd_bus_message* message);
void HandleRemoved(Anchor& anchor, sd_bus_message* message);

// What sd-bus calls. An exception that is not a std::exception comes from a callback that broke its
// promise; letting it unwind through sd-bus would leave the connection busy for ever, so it ends
// the process here. The object may be gone when the handler returns.
template <void (*Handle)(Anchor&, sd_bus_message*)>
int On(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    Handle(*static_cast<Anchor*>(anchor), message);
    return 0;
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
            On<HandleChanged>);
    install(about.interfaces_added_match, SignalRule("InterfacesAdded", object.path()),
            On<HandleAdded>);
    install(about.interfaces_removed_match, SignalRule("InterfacesRemoved", object.path()),
            On<HandleRemoved>);
}

using Update = void (*)(CachedObject object, sd_bus_message* message);

// What the three signal handlers share: the update happens under the object's mutex, the callbacks
// run without it.
void HandleSignal(CachedObject object, sd_bus_message* message, const char* enter,
                  const char* function, Update update)
{
    CLIENT_LOG_FORMAT(trace, object.label(), function, enter);
    CallbackList callbacks;
    try
    {
        const std::lock_guard lock(object.mutex());
        update(object, message);
        CountSignal(object.anchor().signal_count());
        callbacks = CopyCallbacks(object.anchor());
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

void HandleChanged(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_changed, "ObjectCallbackChanged",
                 UpdateChanged);
}

void HandleAdded(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_added, "ObjectCallbackAdded", UpdateAdded);
}

void HandleRemoved(Anchor& anchor, sd_bus_message* message)
{
    const CachedObject object(anchor);
    HandleSignal(object, message, object.about().enter_removed, "ObjectCallbackRemoved",
                 UpdateRemoved);
}

} // namespace

void Construct(Anchor& anchor, std::string* service, Callback first)
{
    const CachedObject object(anchor);
    if (service != nullptr)
    {
        object.service().swap(*service);
    }
    const char* const label = object.label();
    const char* const name = object.interface().short_name;
    CLIENT_LOG_FORMAT(trace, label, name, object.interface().enter);
    LogIfSwapped(object.interface(), Family::cached, object.path(), object.service());
    try
    {
        AddCallback(anchor, first);
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

void* Make(std::string* service, std::string& path, Callback first, bool use_async,
           const Registry& registry)
{
    const auto& about = static_cast<const CachedClass&>(*registry.about);
    MadeObject object(about.make(std::move(path), use_async), about.destroy);
    Construct(about.anchor(object.get()), service, first);
    Save(object.get(), registry);
    return object.release();
}

void Changed(Anchor& anchor, Message& message)
{
    HandleChanged(anchor, message.get());
}

void Added(Anchor& anchor, Message& message)
{
    HandleAdded(anchor, message.get());
}

void Removed(Anchor& anchor, Message& message)
{
    HandleRemoved(anchor, message.get());
}

} // namespace bmcbus::client
