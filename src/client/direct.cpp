#include <bmcbus/client/direct.hpp>

#include "bus/bus.hpp"
#include "client/member_log.hpp"
#include "client/value.hpp"

#include <object_mapper.hpp>

#include <optional>

namespace bmcbus::client
{
namespace
{

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

// One property of one object.
struct Access
{
    Target& target;
    const Interface& interface;
    Which which;

    const Property& property() const { return interface.properties[which.property()]; }
    const char* name() const { return interface.NameOf(property()); }
};

// The names of a property's operations in log lines.
const char* GetterPrefix(const Access& access)
{
    return access.which.lock() ? "Get_" : "GetLocked_";
}

void Report(bool* ok, bool value)
{
    if (ok != nullptr)
    {
        *ok = value;
    }
}

// Sends `call`; null when the answer is an error that arrived as a reply.
MessageRef Exchange(sd_bus* bus, sd_bus_message* call, const char* label, const char* prefix,
                    const char* member)
{
    MessageRef reply = bmcbus::Call(bus, call);
    if (sd_bus_message_is_method_error(reply.get(), nullptr) > 0)
    {
        CLIENT_LOG(trace, label, MemberName(prefix, member).c_str(), "reply error");
        reply.reset();
    }
    return reply;
}

MessageRef PropertyCall(sd_bus* bus, const Access& access, const char* member)
{
    MessageRef call =
        NewCall(bus, access.target.service, access.target.path, propertiesInterface, member);
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, access.interface.name);
    AppendBasic(call.get(), SD_BUS_TYPE_STRING, access.name());
    return call;
}

// The bus exchange of a read: the alternative's index, or nothing.
std::optional<size_t> ReadProperty(const Access& access, Value& value)
{
    try
    {
        const BusRef bus = DefaultBus();
        const MessageRef call = PropertyCall(bus.get(), access, "Get");
        const MessageRef reply =
            Exchange(bus.get(), call.get(), access.interface.label, "GetLocked_", access.name());
        if (reply)
        {
            return ReadVariant(reply.get(), access.interface.alternatives, value);
        }
    }
    catch (const std::exception& error)
    {
        LogException(access.interface.label, "GetLocked_", access.name(), error);
    }
    return {};
}

// The same, inside the object's mutex where the operation takes it.
std::optional<size_t> Get(const Access& access, Value& value)
{
    try
    {
        std::unique_lock lock(access.target.mutex, std::defer_lock);
        if (access.which.lock())
        {
            lock.lock();
        }
        return ReadProperty(access, value);
    }
    catch (const std::exception& error)
    {
        LogException(access.interface.label, GetterPrefix(access), access.name(), error);
    }
    return {};
}

void WriteProperty(const Access& access, ConstRef value)
{
    try
    {
        if (value.type == nullptr)
        {
            throw std::bad_variant_access();
        }
        const BusRef bus = DefaultBus();
        const MessageRef call = PropertyCall(bus.get(), access, "Set");
        Open(call.get(), SD_BUS_TYPE_VARIANT, value.type->signature);
        value.type->append(call.get(), value.value);
        Close(call.get());
        Exchange(bus.get(), call.get(), access.interface.label, "SetLocked_", access.name());
    }
    catch (const std::exception& error)
    {
        LogException(access.interface.label, "SetLocked_", access.name(), error);
    }
}

// The same, inside the object's mutex where the operation takes it.
void Set(const Access& access, ConstRef value)
{
    try
    {
        std::unique_lock lock(access.target.mutex, std::defer_lock);
        if (access.which.lock())
        {
            lock.lock();
        }
        WriteProperty(access, value);
    }
    catch (const std::exception& error)
    {
        LogException(access.interface.label, access.which.lock() ? "Set_" : "SetLocked_",
                     access.name(), error);
    }
}

// The index of the property called `name`, after the lines that go with it.
std::optional<uint32_t> FindByName(const Interface& interface, const char* function,
                                   const std::string& name, bool writing)
{
    CLIENT_LOG(trace, interface.label, function, "property_name=[%s]", name.c_str());
    for (uint32_t i = 0; i < interface.properties.size(); ++i)
    {
        const Property& property = interface.properties[i];
        if (name == interface.NameOf(property) && (property.writable || !writing))
        {
            return i;
        }
    }
    CLIENT_LOG(error, interface.label, function, "invalid property_name=[%s]", name.c_str());
    return {};
}

} // namespace

void Construct(Target& target, const Interface& interface)
{
    const char* name = interface.short_name;
    CLIENT_LOG_FORMAT(trace, interface.label, name, interface.enter);
    if (target.service.empty())
    {
        try
        {
            ObjectMapper::Wrappers::PathAndInterfaceToService(target.path, interface.name,
                                                              target.service);
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

void GetVariant(Target& target, const Interface& interface, Which which, bool* ok, void* value)
{
    const Access access{target, interface, which};
    Report(ok, false);
    Value read;
    if (const std::optional<size_t> index = Get(access, read))
    {
        interface.variant->store(value, *index, read.get());
        Report(ok, true);
    }
}

void GetTyped(Target& target, const Interface& interface, Which which, bool* ok, void* value)
{
    const Access access{target, interface, which};
    Report(ok, false);
    Value read;
    if (!Get(access, read))
    {
        return;
    }
    const Type& type = access.interface.TypeOf(access.property());
    if (read.type() != &type)
    {
        CLIENT_LOG(error, access.interface.label,
                   MemberName(GetterPrefix(access), access.name()).c_str(),
                   "invalid type in variant");
        return;
    }
    type.move(value, read.get());
    Report(ok, true);
}

void SetVariant(Target& target, const Interface& interface, Which which, const void* variant)
{
    Set({target, interface, which}, interface.variant->held(variant));
}

void SetTyped(Target& target, const Interface& interface, Which which, const void* value)
{
    const Type& type = interface.TypeOf(interface.properties[which.property()]);
    Set({target, interface, which}, {&type, value});
}

void GetByName(Target& target, const Interface& interface, bool lock, const std::string& name,
               void* variant)
{
    if (const auto index =
            FindByName(interface, lock ? "GetByName" : "GetByNameLocked", name, false))
    {
        GetVariant(target, interface, {*index, lock}, nullptr, variant);
    }
}

void SetByName(Target& target, const Interface& interface, bool lock, const std::string& name,
               const void* variant)
{
    if (const auto index =
            FindByName(interface, lock ? "SetByName" : "SetByNameLocked", name, true))
    {
        SetVariant(target, interface, {*index, lock}, variant);
    }
}

void Call(Target& target, const Interface& interface, const char* member, bool& ok,
          std::span<const ConstRef> in, std::span<const Ref> out)
{
    ok = false;
    try
    {
        const BusRef bus = DefaultBus();
        const MessageRef call =
            NewCall(bus.get(), target.service, target.path, interface.name, member);
        for (const ConstRef& argument : in)
        {
            argument.type->append(call.get(), argument.value);
        }
        const MessageRef reply = Exchange(bus.get(), call.get(), interface.label, "Call_", member);
        if (!reply)
        {
            return;
        }
        for (const Ref& argument : out)
        {
            argument.type->read(reply.get(), argument.value);
        }
        ok = true;
    }
    catch (const std::exception& error)
    {
        LogException(interface.label, "Call_", member, error);
    }
}

} // namespace bmcbus::client
