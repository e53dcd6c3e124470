// How a cached proxy finds its service and reads its first values, waiting or not.

#include <bmcbus/client/cached.hpp>

#include "bus/bus.hpp"
#include "bus/get_all_reply.hpp"
#include "bus/object_mapper_lookup.hpp"
#include "client/cached_object.hpp"
#include "client/member_log.hpp"

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

constexpr const char* completion = "GetPropertiesAsyncCallback";

// What is done with the values of a first read, however they came; `store` stores them.
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
int OnGetAll(sd_bus_message* reply, void* user_data, sd_bus_error* /*error*/) noexcept
{
    namespace lines = Async::Ops::detail;
    Anchor& anchor = *static_cast<Anchor*>(user_data);
    anchor.Answered();
    const CachedObject object(anchor);
    PropertyMap values(object.interface());
    const bool answered = lines::LogReply(reply);
    bool read = false;
    try
    {
        if (answered)
        {
            values.Read(reply);
            lines::LogRead();
            read = true;
        }
    }
    catch (const std::exception& error)
    {
        lines::LogFailure(error);
    }
    Complete(object, read, values.empty(),
             [&]
             { StoreAll(object, values, true, [&](const char* name) { LogRead(object, name); }); });
    if (answered)
    {
        lines::LogEnd();
    }
    return 1;
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

} // namespace

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
                     if (object.interface().LeavesOut(entry.name))
                     {
                         continue;
                     }
                     LogRead(object, entry.name.data());
                     StoreNamed(object, entry.name, true, Source(entry.value));
                 }
             });
}

} // namespace bmcbus::client
