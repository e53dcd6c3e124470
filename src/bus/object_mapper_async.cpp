// The object mapper asked without waiting: the requests. What becomes of the answers is in
// object_mapper_reply.cpp.

#include "bus/bus.hpp"
#include "bus/message_size.hpp"
#include "bus/object_mapper_internal.hpp"
#include "bus/object_mapper_lookup.hpp"
#include "bus/object_mapper_pending.hpp"
#include "bus/text.hpp"

#include <cerrno>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

namespace ObjectMapper
{

namespace
{

using internal::LogObjectFailure;
using internal::Names;
using internal::Pending;
using Wrappers::CallbackRecord;
using Wrappers::GetObjectCallback;
using Wrappers::GetObjectCallback2;
using Wrappers::ServiceCallback;
using Wrappers::ServiceCallback2;

// The two forms of the request: whose name its lines carry, and who takes the reply.
template <class Callback>
struct Form;

template <>
struct Form<GetObjectCallback>
{
    static constexpr const char* function = "GetObjectAsync";
    static constexpr auto handle = Wrappers::Internal_GetObjectAsync_Callback;
};

template <>
struct Form<GetObjectCallback2>
{
    static constexpr const char* function = "GetObjectAsync2";
    static constexpr auto handle = Wrappers::Internal_GetObjectAsync_Callback2;
};

// What sd-bus calls. An exception that is none of ours ends the process here instead of leaving the
// connection half-way through a dispatch.
template <class Callback>
int OnReply(sd_bus_message* reply, void* record, sd_bus_error* error) noexcept
{
    return Form<Callback>::handle(reply, record, error);
}

// Checks a step of putting the request together; one that fails is named in a line and in the
// exception.
void Require(const char* function, const char* step, int result)
{
    if (result < 0)
    {
        const std::string failure = std::string(step) + " returned an error";
        LOG_FOR_FORMAT(function, error, ("%s.%d.%s: " + failure + ", irv=%d").c_str(), result);
        throw std::runtime_error(failure);
    }
}

void AppendText(const char* function, sd_bus_message* call, const std::string& text)
{
    Require(function, "sd_bus_message_append", bmcbus::Grow(call, 4, 4 + text.size() + 1));
    Require(function, "sd_bus_message_append",
            bmcbus::IsBusText(text) ? sd_bus_message_append(call, "s", text.c_str()) : -EINVAL);
}

bmcbus::MessageRef NewGetObject(const char* function, sd_bus* bus, const std::string& path,
                                const Names& interfaces)
{
    sd_bus_message* raw = nullptr;
    Require(function, "sd_bus_message_new_method_call",
            sd_bus_message_new_method_call(bus, &raw, internal::mapperService, internal::mapperPath,
                                           internal::mapperInterface, "GetObject"));
    if (raw == nullptr)
    {
        LOG_FOR(function, error, "sd_bus_message_new_method_call returned a NULL message");
        throw std::runtime_error("d_bus_message_new_method_call returned a NULL message");
    }
    bmcbus::MessageRef call(raw);
    bmcbus::StartMessage(raw, 0);
    AppendText(function, raw, path);
    Require(function, "sd_bus_message_open_container",
            sd_bus_message_open_container(raw, SD_BUS_TYPE_ARRAY, "s"));
    for (const std::string& interface : interfaces)
    {
        AppendText(function, raw, interface);
    }
    Require(function, "sd_bus_message_close_container", sd_bus_message_close_container(raw));
    return call;
}

template <class Callback>
bmcbus::Slot Queue(sd_bus* bus, const std::string& path, const Names& interfaces,
                   const CallbackRecord<Callback>& record, void (*dropContext)(void*))
{
    constexpr const char* function = Form<Callback>::function;
    auto pending = std::make_unique<Pending<Callback>>(Pending<Callback>{record, dropContext, {}});
    const bmcbus::MessageRef call = NewGetObject(function, bus, path, interfaces);
    pending->deadline = bmcbus::Deadline(bus);
    sd_bus_slot* raw = nullptr;
    Require(function, "sd_bus_call_async",
            sd_bus_call_async(bus, &raw, call.get(), OnReply<Callback>, pending.get(), 0));
    bmcbus::Slot slot(raw);
    sd_bus_slot_set_destroy_callback(raw, Pending<Callback>::Drop);
    static_cast<void>(pending.release());
    return slot;
}

// The connection, or the thread's default one. Waits until a new one is up: if nobody else holds
// it, what is only queued never goes out. One that is dead or inherited is left to the steps of the
// request, which name it.
bmcbus::BusRef Hold(const char* function, sd_bus* wanted)
{
    sd_bus* raw = sd_bus_ref(wanted);
    if (raw == nullptr)
    {
        Require(function, "sd_bus_default_system", sd_bus_default_system(&raw));
    }
    bmcbus::BusRef bus(raw);
    static_cast<void>(bmcbus::AwaitReady(raw));
    return bus;
}

template <class Callback>
bmcbus::Slot QueueHeld(sd_bus* wanted, const std::string& path, const Names& interfaces,
                       const CallbackRecord<Callback>& record, void (*dropContext)(void*))
try
{
    const bmcbus::BusRef bus = Hold(Form<Callback>::function, wanted);
    return Queue(bus.get(), path, interfaces, record, dropContext);
}
catch (const std::exception& e)
{
    LogObjectFailure(Form<Callback>::function, e, path, interfaces);
    throw;
}

template <class Callback>
bmcbus::Slot QueueOn(sd_bus* bus, const std::string& path, const Names& interfaces,
                     const CallbackRecord<Callback>& record)
try
{
    return Queue(bus, path, interfaces, record, nullptr);
}
catch (const std::exception& e)
{
    LogObjectFailure(Form<Callback>::function, e, path, interfaces);
    throw;
}

// Leaves a pending call to its connection: it can no longer be cancelled.
void Detach(bmcbus::Slot slot)
{
    sd_bus_slot_set_floating(slot.get(), 1);
}

// Queues GetObject for one interface, to be answered to a callback that takes a service name.
template <class ServiceForm, class ObjectForm>
bmcbus::Slot QueueLookup(const char* function, sd_bus* bus, const std::string& path,
                         const std::string& interface, ObjectForm choose,
                         const CallbackRecord<ServiceForm>& record)
try
{
    using Record = CallbackRecord<ServiceForm>;
    auto context = std::make_unique<Record>(record);
    bmcbus::Slot slot = QueueHeld<ObjectForm>(bus, path, {interface}, {choose, context.get()},
                                              [](void* own) { delete static_cast<Record*>(own); });
    static_cast<void>(context.release());
    return slot;
}
catch (const std::exception& e)
{
    LOG_FOR(function, error, "ex: %s", e.what());
    LOG_FOR(function, error, " path: %s", path.c_str());
    throw;
}

} // namespace

namespace Wrappers
{

void GetObjectAsync(bmcbus::Bus& bus, const std::string& path, const Names& interfaces,
                    GetObjectCallback callback, void* context)
{
    Detach(
        QueueOn<GetObjectCallback>(bmcbus::Connection(bus), path, interfaces, {callback, context}));
}

void GetObjectAsync(const std::string& path, const Names& interfaces, GetObjectCallback callback,
                    void* context)
{
    Detach(QueueHeld<GetObjectCallback>(nullptr, path, interfaces, {callback, context}, nullptr));
}

void GetObjectAsync2(bmcbus::Bus& bus, const std::string& path, const Names& interfaces,
                     GetObjectCallback2 callback, void* context)
{
    Detach(QueueOn<GetObjectCallback2>(bmcbus::Connection(bus), path, interfaces,
                                       {callback, context}));
}

void GetObjectAsync2(const std::string& path, const Names& interfaces, GetObjectCallback2 callback,
                     void* context)
{
    Detach(QueueHeld<GetObjectCallback2>(nullptr, path, interfaces, {callback, context}, nullptr));
}

void PathAndInterfaceToServiceAsync(const std::string& path, const std::string& interface,
                                    ServiceCallback callback, void* context)
{
    Detach(internal::LookupServiceAsync(nullptr, path, interface, callback, context));
}

void PathAndInterfaceToServiceAsync2(const std::string& path, const std::string& interface,
                                     ServiceCallback2 callback, void* context)
{
    Detach(QueueLookup<ServiceCallback2>(
        "PathAndInterfaceToServiceAsync2", nullptr, path, interface,
        Internal_PathAndInterfaceToServiceAsync_Callback2, {callback, context}));
}

} // namespace Wrappers

bmcbus::Slot internal::LookupServiceAsync(sd_bus* bus, const std::string& path,
                                          const std::string& interface, ServiceCallback callback,
                                          void* context)
{
    return QueueLookup<ServiceCallback>("PathAndInterfaceToServiceAsync", bus, path, interface,
                                        Wrappers::Internal_PathAndInterfaceToServiceAsync_Callback,
                                        {callback, context});
}

} // namespace ObjectMapper
