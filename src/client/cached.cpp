#include <bmcbus/client/cached.hpp>

#include "bus/bus.hpp"
#include "bus/match.hpp"
#include "bus/object_mapper_lookup.hpp"
#include "client/member_log.hpp"
#include "client/property_map.hpp"
#include "client/signal.hpp"

#include <async_ops.hpp>
#include <object_mapper.hpp>

namespace bmcbus::client
{
namespace
{

std::mutex& Mutex(void* object, const CachedClass& about)
{
    return At<std::mutex>(object, about.object_mutex);
}

const std::string& Path(void* object, const CachedClass& about)
{
    return At<std::string>(object, about.path);
}

std::string Service(void* object, const CachedClass& about)
{
    const std::lock_guard lock(Mutex(object, about));
    return At<std::string>(object, about.service);
}

void SetService(void* object, const CachedClass& about, const std::string& service)
{
    const std::lock_guard lock(Mutex(object, about));
    At<std::string>(object, about.service) = service;
}

void SetReady(void* object, const CachedClass& about)
{
    const std::lock_guard lock(Mutex(object, about));
    At<bool>(object, about.ready) = true;
}

bool IsAsync(void* object, const CachedClass& about)
{
    return At<bool>(object, about.use_async);
}

const CachedClass& About(const Anchor& anchor)
{
    return static_cast<const CachedClass&>(anchor.about());
}

// The handlers that sd-bus calls. An exception that is not a std::exception comes from a callback
// that broke its promise; letting it unwind through sd-bus would leave the connection busy for
// ever, so it ends the process here. The object may be gone when they return.

int OnChanged(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    const Anchor& self = *static_cast<Anchor*>(anchor);
    Changed(self.object(), About(self), message);
    return 0;
}

int OnAdded(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    const Anchor& self = *static_cast<Anchor*>(anchor);
    Added(self.object(), About(self), message);
    return 0;
}

int OnRemoved(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    const Anchor& self = *static_cast<Anchor*>(anchor);
    Removed(self.object(), About(self), message);
    return 0;
}

void InstallMatches(sd_bus* bus, void* object, const CachedClass& about)
{
    const std::string& path = Path(object, about);
    Anchor& anchor = At<Anchor>(object, about.anchor);
    const auto install =
        [&](uint16_t field, const std::string& rule, sd_bus_message_handler_t handler)
    { Require(AddMatch(bus, rule, handler, &anchor, At<Slot>(object, field)), "sd_bus_match"); };
    install(about.properties_changed_match,
            SignalRule("PropertiesChanged", path, "org.freedesktop.DBus.Properties"), OnChanged);
    install(about.interfaces_added_match, SignalRule("InterfacesAdded", path), OnAdded);
    install(about.interfaces_removed_match, SignalRule("InterfacesRemoved", path), OnRemoved);
}

// What a setter's log lines are called.
const char* SetterPrefix(bool lock)
{
    return lock ? "Set_" : "SetLocked_";
}

// A value on its way into a field: moved when it is ours, copied when it is borrowed.
struct Source
{
    explicit Source(ConstRef borrowed) : type(borrowed.type), from(borrowed.value) {}
    explicit Source(Value& owned) : type(owned.type()), from(owned.get()), movable(owned.get()) {}

    void AssignTo(void* field) const
    {
        if (movable != nullptr)
        {
            type->move(field, movable);
        }
        else
        {
            type->copy(field, from);
        }
    }

    const Type* type;
    const void* from;
    void* movable = nullptr;
};

void SetIndexed(void* object, const CachedClass& about, Which which, const Source& source)
{
    const Property& property = about.interface->properties[which.property()];
    const Field& field = about.fields.list[which.property()];
    const Type& type = about.interface->TypeOf(property);
    if (source.type != &type)
    {
        CLIENT_LOG(
            error, about.label,
            MemberName(SetterPrefix(which.lock()), about.interface->NameOf(property)).c_str(),
            "invalid type in variant");
        return;
    }
    try
    {
        std::unique_lock lock(Mutex(object, about), std::defer_lock);
        if (which.lock())
        {
            lock.lock();
        }
        source.AssignTo(Place(object, field.value));
        At<bool>(object, field.is_set) = true;
    }
    catch (const std::exception& error)
    {
        LogException(about.label, SetterPrefix(which.lock()), about.interface->NameOf(property),
                     error);
    }
}

void SetNamed(void* object, const CachedClass& about, std::string_view name, bool lock,
              const Source& source)
{
    const char* function = lock ? "SetByName" : "SetByNameLocked";
    CLIENT_LOG(trace, about.label, function, "property_name=[%s]", name.data());
    const std::span<const Property> properties = about.interface->properties;
    for (uint32_t i = 0; i < properties.size(); ++i)
    {
        if (name == about.interface->NameOf(properties[i]))
        {
            SetIndexed(object, about, {i, lock}, source);
            return;
        }
    }
    CLIENT_LOG(error, about.label, function, "invalid property_name=[%s]", name.data());
}

// Stores the properties of one decoded map; `format` names each one first.
void StoreAll(void* object, const CachedClass& about, PropertyMap& values, const char* function,
              bool lock)
{
    for (PropertyMap::Entry& entry : values.entries())
    {
        if (!lock)
        {
            CLIENT_LOG(trace, about.label, function, "property_name=[%s]", entry.name);
        }
        SetNamed(object, about, entry.name, lock, Source(entry.value));
    }
}

constexpr const char* completion = "GetPropertiesAsyncCallback";

// The frame of the first read's completion; `store` stores all there is with StoreRead.
template <class Store>
void Complete(void* object, const CachedClass& about, bool success, bool empty, Store store)
{
    try
    {
        CLIENT_LOG(trace, about.label, completion, "success=%d", success ? 1 : 0);
        if (!success)
        {
            return;
        }
        if (empty)
        {
            CLIENT_LOG(trace, about.label, completion, "empty");
            return;
        }
        store();
        SetReady(object, about);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, completion, "", error);
    }
}

void StoreRead(void* object, const CachedClass& about, std::string_view name, const Source& source)
{
    CLIENT_LOG(trace, about.label, completion, "pname=[%s]", name.data());
    SetNamed(object, about, name, true, source);
}

// The reply to the asynchronous first read.
int OnGetAll(sd_bus_message* message, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Anchor& anchor = *static_cast<Anchor*>(user_data);
    anchor.Answered();
    struct Answer
    {
        Anchor& anchor;
        PropertyMap values;
    } answer{anchor, {}};
    return Async::Ops::detail::HandleReply(
        message, {.self = &answer,
                  .decode =
                      [](void* self, sd_bus_message* reply)
                  {
                      auto& to = *static_cast<Answer*>(self);
                      to.values.Read(reply, *About(to.anchor).interface);
                  },
                  .complete =
                      [](void* self, bool success)
                  {
                      auto& from = *static_cast<Answer*>(self);
                      void* object = from.anchor.object();
                      const CachedClass& about = About(from.anchor);
                      std::vector<PropertyMap::Entry>& entries = from.values.entries();
                      Complete(object, about, success, entries.empty(),
                               [&]
                               {
                                   for (PropertyMap::Entry& entry : entries)
                                   {
                                       StoreRead(object, about, entry.name, Source(entry.value));
                                   }
                               });
                  }});
}

void OnService(bool success, std::string& found, void* user_data)
{
    Anchor& anchor = *static_cast<Anchor*>(user_data);
    anchor.Answered();
    ServiceFound(anchor.object(), About(anchor), success, found);
}

void ReadNow(sd_bus* bus, void* object, const CachedClass& about)
{
    const MessageRef call = NewCall(bus, Service(object, about), Path(object, about),
                                    "org.freedesktop.DBus.Properties", "GetAll");
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, about.interface->name);
    const MessageRef reply = bmcbus::Call(bus, call.get());
    PropertyMap values;
    values.Read(reply.get(), *about.interface);
    if (!values.entries().empty())
    {
        StoreAll(object, about, values, "ServiceIsSet", true);
        SetReady(object, about);
    }
}

using Update = void (*)(void* object, const CachedClass& about, sd_bus_message* message);

// What the three signal handlers share: the update happens under the object's mutex, the callbacks
// run without it.
void HandleSignal(void* object, const CachedClass& about, sd_bus_message* message,
                  const char* enter, const char* function, Update update)
{
    CLIENT_LOG_FORMAT(trace, about.label, function, enter);
    Callbacks callbacks;
    try
    {
        const std::lock_guard lock(Mutex(object, about));
        update(object, about, message);
        CountSignal(object, about);
        callbacks = At<Callbacks>(object, about.callbacks);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, function, "", error);
        return;
    }
    RunCallbacks(object, about, function, callbacks);
}

void UpdateChanged(void* object, const CachedClass& about, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackChanged";
    const char* interface = nullptr;
    ReadText(message, SD_BUS_TYPE_STRING, interface);
    CLIENT_LOG(trace, about.label, function, "interface_name=[%s]", interface);
    const bool ours = std::strcmp(interface, about.interface->name) == 0;
    PropertyMap values;
    values.Read(message, *about.interface, ours);
    if (ours)
    {
        StoreAll(object, about, values, function, false);
        At<bool>(object, about.ready) = true;
    }
}

void UpdateAdded(void* object, const CachedClass& about, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackAdded";
    const char* path = nullptr;
    ReadText(message, SD_BUS_TYPE_OBJECT_PATH, path);
    CLIENT_LOG(trace, about.label, function, "object_path_string=[%s]", path);
    InterfaceMap interfaces;
    interfaces.Read(message, *about.interface);
    for (const char* interface : interfaces.names())
    {
        CLIENT_LOG(trace, about.label, function, "interface_name=[%s]", interface);
        if (std::strcmp(interface, about.interface->name) == 0)
        {
            StoreAll(object, about, interfaces.properties(), function, false);
            At<bool>(object, about.ready) = true;
        }
    }
}

void UpdateRemoved(void* object, const CachedClass& about, sd_bus_message* message)
{
    static constexpr const char* function = "ObjectCallbackRemoved";
    const char* path = nullptr;
    ReadText(message, SD_BUS_TYPE_OBJECT_PATH, path);
    CLIENT_LOG(trace, about.label, function, "object_path_string=[%s]", path);
    std::vector<std::string> interfaces;
    Read(message, interfaces);
    for (const std::string& interface : interfaces)
    {
        CLIENT_LOG(trace, about.label, function, "i=[%s]", interface.c_str());
        if (interface == about.interface->name)
        {
            At<bool>(object, about.ready) = false;
            At<std::string>(object, about.service).clear();
            CLIENT_LOG(trace, about.label, function, "service cleared");
        }
    }
}

} // namespace

void Construct(void* object, const CachedClass& about, const Callback& first)
{
    const char* name = about.interface->short_name;
    CLIENT_LOG_FORMAT(trace, about.label, name, about.interface->enter);
    try
    {
        if (first.function != nullptr)
        {
            const std::lock_guard lock(Mutex(object, about));
            At<Callbacks>(object, about.callbacks).Add(first);
        }
        const BusRef bus = DefaultBus();
        CLIENT_LOG(trace, about.label, name, "set up callbacks and matches");
        InstallMatches(bus.get(), object, about);
        CLIENT_LOG(trace, about.label, name, "get current values");
        InitialGetAll(object, about);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, name, "", error);
    }
    CLIENT_LOG_FORMAT(trace, about.label, name, about.interface->leave);
}

void InitialGetAll(void* object, const CachedClass& about)
{
    static constexpr const char* function = "InitialGetAll";
    try
    {
        CLIENT_LOG(trace, about.label, function, "not using datacache");
        if (!Service(object, about).empty())
        {
            ServiceIsSet(object, about);
            return;
        }
        CLIENT_LOG(trace, about.label, function, "no service set");
        if (IsAsync(object, about))
        {
            CLIENT_LOG(trace, about.label, function, "use async");
            Anchor& anchor = At<Anchor>(object, about.anchor);
            anchor.Await(ObjectMapper::internal::LookupServiceAsync(
                Path(object, about), about.interface->name, OnService, &anchor));
            return;
        }
        CLIENT_LOG(trace, about.label, function, "do not use async");
        std::string found;
        ObjectMapper::Wrappers::PathAndInterfaceToService(Path(object, about),
                                                          about.interface->name, found);
        SetService(object, about, found);
        if (found.empty())
        {
            CLIENT_LOG(trace, about.label, function, "no service yet");
            return;
        }
        CLIENT_LOG(trace, about.label, function, "found service=[%s]", found.c_str());
        ServiceIsSet(object, about);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, function, "", error);
    }
}

void ServiceFound(void* object, const CachedClass& about, bool success, const std::string& found)
{
    static constexpr const char* function = "GetServiceAsyncCallback";
    try
    {
        CLIENT_LOG(trace, about.label, function, "success=%d", success ? 1 : 0);
        if (!success)
        {
            return;
        }
        if (found.empty())
        {
            CLIENT_LOG(trace, about.label, function, "empty");
            return;
        }
        SetService(object, about, found);
        CLIENT_LOG(trace, about.label, function, "service=[%s]", found.c_str());
        ServiceIsSet(object, about);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, function, "", error);
    }
}

void ServiceIsSet(void* object, const CachedClass& about)
{
    static constexpr const char* function = "ServiceIsSet";
    try
    {
        CLIENT_LOG(trace, about.label, function, "enter");
        if (IsAsync(object, about))
        {
            CLIENT_LOG(trace, about.label, function, "use async");
            const BusRef bus = DefaultBus();
            Anchor& anchor = At<Anchor>(object, about.anchor);
            anchor.Await(Async::Ops::detail::QueueGetAll(bus.get(), Service(object, about),
                                                         Path(object, about), about.interface->name,
                                                         OnGetAll, &anchor, nullptr));
            return;
        }
        CLIENT_LOG(trace, about.label, function, "do not use async");
        const BusRef bus = DefaultBus();
        ReadNow(bus.get(), object, about);
    }
    catch (const std::exception& error)
    {
        LogException(about.label, function, "", error);
    }
}

void PropertiesRead(void* object, const CachedClass& about, bool success, const NamedRefs& values)
{
    Complete(object, about, success, values.size == 0,
             [&]
             {
                 for (size_t left = values.size; left > 0; --left)
                 {
                     const NamedRef entry = values.next(values.position);
                     StoreRead(object, about, entry.name, Source(entry.value));
                 }
             });
}

void Changed(void* object, const CachedClass& about, sd_bus_message* message)
{
    HandleSignal(object, about, message, about.enter_changed, "ObjectCallbackChanged",
                 UpdateChanged);
}

void Added(void* object, const CachedClass& about, sd_bus_message* message)
{
    HandleSignal(object, about, message, about.enter_added, "ObjectCallbackAdded", UpdateAdded);
}

void Removed(void* object, const CachedClass& about, sd_bus_message* message)
{
    HandleSignal(object, about, message, about.enter_removed, "ObjectCallbackRemoved",
                 UpdateRemoved);
}

void SetProperty(void* object, const CachedClass& about, Which which, const void* variant)
{
    SetIndexed(object, about, which, Source(about.interface->variant->held(variant)));
}

void SetByName(void* object, const CachedClass& about, const std::string& name, bool lock,
               const void* variant)
{
    SetNamed(object, about, name, lock, Source(about.interface->variant->held(variant)));
}

} // namespace bmcbus::client
