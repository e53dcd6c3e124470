// Direct proxies: one blocking call for each operation.

#include <bmcbus/client/direct.hpp>

#include "bus/bus.hpp"
#include "client/argument_order.hpp"
#include "client/member_log.hpp"
#include "client/value.hpp"

#include <bmcbus/mapper.hpp>
#include <object_mapper.hpp>

#include <optional>

namespace bmcbus::client
{
namespace
{

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

// An operation on a property.
struct Operation
{
    Target& target;
    Access access;

    const Interface& interface() const { return *target.interface; }
    const char* label() const { return interface().label; }
    const Property& property() const { return interface().properties[access.property]; }
    const char* name() const { return interface().NameOf(property()); }

    // What its lines in the log are called.
    const char* getter() const { return access.lock ? "Get_" : "GetLocked_"; }
    const char* setter() const { return access.lock ? "Set_" : "SetLocked_"; }
};

BusRef BusOf(const Target& target)
{
    return target.bus ? BusRef(sd_bus_ref(target.bus.get())) : DefaultBus();
}

// Leaves the service empty when there is none.
void FindService(Target& target)
{
    if (!target.bus)
    {
        ObjectMapper::Wrappers::PathAndInterfaceToService(target.path, target.interface->name,
                                                          target.service);
    }
    else if (auto found =
                 mapper::Try_Service(target.path, target.interface->name, {}, target.bus.get()))
    {
        target.service = *std::move(found);
    }
}

// Sends `call`; null when the answer is an error that arrived as a reply.
MessageRef Exchange(sd_bus* bus, sd_bus_message* call, const char* label, const char* prefix,
                    const char* member)
{
    MessageRef reply = bmcbus::ReplyTo(bus, call);
    if (sd_bus_message_is_method_error(reply.get(), nullptr) > 0)
    {
        CLIENT_LOG(trace, label, MemberName(prefix, member).c_str(), "reply error");
        reply.reset();
    }
    return reply;
}

MessageRef PropertyCall(sd_bus* bus, const Operation& operation, const char* member)
{
    MessageRef call =
        NewCall(bus, operation.target.service, operation.target.path, propertiesInterface, member);
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, operation.interface().name);
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, operation.name());
    return call;
}

// The bus exchange of a read: the alternative's index, or nothing.
std::optional<size_t> ReadProperty(const Operation& operation, Value& value)
{
    try
    {
        const BusRef bus = BusOf(operation.target);
        const MessageRef call = PropertyCall(bus.get(), operation, "Get");
        const MessageRef reply =
            Exchange(bus.get(), call.get(), operation.label(), "GetLocked_", operation.name());
        if (reply)
        {
            return ReadVariant(reply.get(), operation.interface().alternatives,
                               operation.property().type_index, value);
        }
    }
    catch (const std::exception& error)
    {
        LogException(operation.label(), "GetLocked_", operation.name(), error);
    }
    return {};
}

// The same, inside the object's mutex where the operation takes it.
std::optional<size_t> Get(const Operation& operation, Value& value)
{
    try
    {
        std::unique_lock lock(operation.target.mutex, std::defer_lock);
        if (operation.access.lock)
        {
            lock.lock();
        }
        return ReadProperty(operation, value);
    }
    catch (const std::exception& error)
    {
        LogException(operation.label(), operation.getter(), operation.name(), error);
    }
    return {};
}

void WriteProperty(const Operation& operation, ConstRef value)
{
    try
    {
        if (value.type == nullptr)
        {
            throw std::bad_variant_access();
        }
        const BusRef bus = BusOf(operation.target);
        const MessageRef call = PropertyCall(bus.get(), operation, "Set");
        Open(call.get(), SD_BUS_TYPE_VARIANT, value.type->signature);
        value.type->append(call.get(), value.value);
        Close(call.get());
        Exchange(bus.get(), call.get(), operation.label(), "SetLocked_", operation.name());
    }
    catch (const std::exception& error)
    {
        LogException(operation.label(), "SetLocked_", operation.name(), error);
    }
}

// The same, inside the object's mutex where the operation takes it.
void Set(const Operation& operation, ConstRef value)
{
    try
    {
        std::unique_lock lock(operation.target.mutex, std::defer_lock);
        if (operation.access.lock)
        {
            lock.lock();
        }
        WriteProperty(operation, value);
    }
    catch (const std::exception& error)
    {
        LogException(operation.label(), operation.setter(), operation.name(), error);
    }
}

// The number of the property called `name`, after the lines that go with it.
std::optional<uint16_t> FindByName(const Interface& interface, const char* function,
                                   const std::string& name, bool writing)
{
    CLIENT_LOG(trace, interface.label, function, "property_name=[%s]", name.c_str());
    const std::optional<uint16_t> number = interface.Find(name);
    if (number && (!writing || interface.properties[*number].writable))
    {
        return number;
    }
    CLIENT_LOG(error, interface.label, function, "invalid property_name=[%s]", name.c_str());
    return {};
}

// Says which object it is, and looks for its service.
void Settle(Target& target)
{
    const Interface& interface = *target.interface;
    const char* name = interface.short_name;
    CLIENT_LOG_FORMAT(trace, interface.label, name, interface.enter);
    LogIfSwapped(interface, Family::direct, target.path, target.service);
    if (target.service.empty())
    {
        try
        {
            FindService(target);
            if (target.service.empty())
            {
                CLIENT_LOG(trace, interface.label, name, "no service found");
            }
            else
            {
                CLIENT_LOG(trace, interface.label, name, "found service=[%s]",
                           target.service.c_str());
            }
        }
        catch (const std::exception& error)
        {
            LogException(interface.label, name, "", error);
        }
    }
    CLIENT_LOG_FORMAT(trace, interface.label, name, interface.leave);
}

} // namespace

Target::Target(const Interface& to, sd_bus* on, std::string* owner, std::string* at) :
    interface(&to),
    service(std::move(*owner)),
    path(std::move(*at)),
    bus(on != nullptr ? sd_bus_ref(on) : nullptr)
{
    Settle(*this);
}

Target::~Target() = default;

void GetVariant(Target& target, bool* ok, void* value, Access access)
{
    const Operation operation{target, access};
    *ok = false;
    Value read;
    if (const std::optional<size_t> index = Get(operation, read))
    {
        operation.interface().variant->store(value, *index, read.get());
        *ok = true;
    }
}

void GetVariant(Target& target, void* value, Access access)
{
    bool ok = false;
    GetVariant(target, &ok, value, access);
}

void GetTyped(Target& target, bool* ok, void* value, Access access)
{
    const Operation operation{target, access};
    *ok = false;
    Value read;
    if (!Get(operation, read))
    {
        return;
    }
    const Type& type = operation.interface().TypeOf(operation.property());
    if (read.type() != &type)
    {
        CLIENT_LOG(error, operation.label(),
                   MemberName(operation.getter(), operation.name()).c_str(),
                   "invalid type in variant");
        return;
    }
    type.move(value, read.get());
    *ok = true;
}

void GetTyped(Target& target, void* value, Access access)
{
    bool ok = false;
    GetTyped(target, &ok, value, access);
}

void SetVariant(Target& target, const void* variant, Access access)
{
    Set({target, access}, target.interface->variant->held(variant));
}

void SetTyped(Target& target, const void* value, Access access)
{
    const Operation operation{target, access};
    Set(operation, {&operation.interface().TypeOf(operation.property()), value});
}

void GetByName(Target& target, bool lock, const std::string& name, void* variant)
{
    const char* const function = lock ? "GetByName" : "GetByNameLocked";
    if (const auto property = FindByName(*target.interface, function, name, false))
    {
        GetVariant(target, variant, {.property = *property, .lock = lock});
    }
}

void SetByName(Target& target, bool lock, const std::string& name, const void* variant)
{
    const char* const function = lock ? "SetByName" : "SetByNameLocked";
    if (const auto property = FindByName(*target.interface, function, name, true))
    {
        SetVariant(target, variant, {.property = *property, .lock = lock});
    }
}

void Call(Target& target, bool& ok, const void* const* in, void* const* out, uint32_t method)
{
    const Interface& interface = *target.interface;
    const Method& called = interface.methods[method];
    ok = false;
    try
    {
        const BusRef bus = BusOf(target);
        const MessageRef call =
            NewCall(bus.get(), target.service, target.path, interface.name, called.name);
        for (const Type* type : called.in)
        {
            type->append(call.get(), *in++);
        }
        const MessageRef reply =
            Exchange(bus.get(), call.get(), interface.label, "Call_", called.name);
        if (!reply)
        {
            return;
        }
        const auto* each = static_cast<const OutValue*>(called.reply.how);
        for (; each != nullptr && each->type != nullptr; ++each)
        {
            each->type->read(reply.get(), *out++);
        }
        ok = true;
    }
    catch (const std::exception& error)
    {
        LogException(interface.label, "Call_", called.name, error);
    }
}

} // namespace bmcbus::client
