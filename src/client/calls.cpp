#include <bmcbus/client/calls.hpp>

#include "bus/call_errors.hpp"
#include "bus/call_message.hpp"
#include "client/value.hpp"

#include <bmcbus/client/object.hpp>

#include <cstring>
#include <optional>

// Direct proxies' calls with results: what to send, and where in a result its values go.

namespace bmcbus::client
{
namespace
{

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

// Names of what is called, and the writer of its arguments.
template <class Write>
MessageRef Make(Target& target, const char* interface, const char* member, CallError& refusal,
                const Write& write) noexcept
{
    if (target.service.empty())
    {
        refusal = bmcbus::detail::RefusedError("No service is known for ", target.path.c_str());
        return nullptr;
    }
    MessageRef call = bmcbus::detail::NewRequest(
        target.bus.get(), {target.service, target.path, interface, member}, refusal);
    const bool made = call && bmcbus::detail::AppendTo(
                                  call.get(),
                                  [](sd_bus_message* message, const void* how)
                                  { (*static_cast<const Write*>(how))(message); },
                                  &write, refusal);
    return made ? std::move(call) : MessageRef();
}

void AppendName(sd_bus_message* call, const char* name)
{
    AppendBasic(call, SD_BUS_TYPE_STRING, name);
}

MessageRef GetCall(Target& target, uint16_t property, CallError& refusal) noexcept
{
    const Interface& interface = *target.interface;
    return Make(target, propertiesInterface, "Get", refusal,
                [&](sd_bus_message* call)
                {
                    AppendName(call, interface.name);
                    AppendName(call, interface.NameOf(interface.properties[property]));
                });
}

MessageRef SetCall(Target& target, uint16_t property, const void* value,
                   CallError& refusal) noexcept
{
    const Interface& interface = *target.interface;
    return Make(target, propertiesInterface, "Set", refusal,
                [&](sd_bus_message* call)
                {
                    const Property& written = interface.properties[property];
                    const Type& type = interface.TypeOf(written);
                    AppendName(call, interface.name);
                    AppendName(call, interface.NameOf(written));
                    Open(call, SD_BUS_TYPE_VARIANT, type.signature);
                    type.append(call, value);
                    Close(call);
                });
}

MessageRef GetAllCall(Target& target, CallError& refusal) noexcept
{
    return Make(target, propertiesInterface, "GetAll", refusal,
                [&](sd_bus_message* call) { AppendName(call, target.interface->name); });
}

MessageRef MethodCall(Target& target, uint16_t method, const void* const* in,
                      CallError& refusal) noexcept
{
    const Method& called = target.interface->methods[method];
    return Make(target, target.interface->name, called.name, refusal,
                [&](sd_bus_message* call)
                {
                    for (const Type* type : called.in)
                    {
                        type->append(call, *in++);
                    }
                });
}

constexpr bmcbus::detail::ReplyType emptyReply = {
    .signature = "", .property = false, .read = ReadNothing, .how = nullptr};

} // namespace

void ReadNothing(sd_bus_message* /*reply*/, void* /*value*/, const void* /*how*/) {}

MessageRef MakeCall(const Operation& operation, CallError& refusal) noexcept
{
    Target& target = operation.target;
    switch (operation.ask)
    {
        case Ask::Get:
            return GetCall(target, operation.number, refusal);
        case Ask::Set:
            return SetCall(target, operation.number, *operation.in, refusal);
        case Ask::GetAll:
            return GetAllCall(target, refusal);
        default:
            return MethodCall(target, operation.number, operation.in, refusal);
    }
}

const bmcbus::detail::ReplyType& ReplyOf(const Operation& operation) noexcept
{
    const Interface& interface = *operation.target.interface;
    switch (operation.ask)
    {
        case Ask::Get:
            return interface.replies[interface.properties[operation.number].type_index];
        case Ask::Set:
            return emptyReply;
        case Ask::GetAll:
            return interface.all->reply;
        default:
            return interface.methods[operation.number].reply;
    }
}

bool Exchange(const Operation& operation, const CallOptions& options, void* value,
              CallError& error) noexcept
{
    MessageRef call = MakeCall(operation, error);
    return call &&
           bmcbus::detail::Exchange(std::move(call), options, ReplyOf(operation), value, error);
}

bmcbus::Call Launch(const Operation& operation, const CallOptions& options,
                    bmcbus::detail::TypedCall& call) noexcept
{
    CallError refusal;
    MessageRef message = MakeCall(operation, refusal);
    return bmcbus::detail::Launch(call, ReplyOf(operation), std::move(message), refusal, options,
                                  &operation.target.calls);
}

void ReadOut(sd_bus_message* reply, void* value, const void* how)
{
    for (const OutValue* out = static_cast<const OutValue*>(how); out->type != nullptr; ++out)
    {
        out->type->read(reply, Place(value, out->offset));
    }
}

void ReadValue(sd_bus_message* reply, void* value, const void* how)
{
    static_cast<const Type*>(how)->read(reply, value);
}

namespace
{

// One property: into its own place, if it has the type of the description, and into the map.
void ReadOne(sd_bus_message* reply, const Interface& interface, void* all)
{
    const AllProperties& table = *interface.all;
    const char* name = nullptr;
    ReadText(reply, 's', name);
    const char* contents = PeekVariant(reply);
    const std::optional<uint16_t> number = interface.Find(name);
    const uint8_t type_index = number ? interface.properties[*number].type_index : uint8_t{0};
    const bool fits = number && contents != nullptr &&
                      std::strcmp(contents, interface.alternatives[type_index]->signature) == 0;
    Value value;
    const size_t held = ReadVariant(reply, interface.alternatives, type_index, value);
    if (fits)
    {
        interface.alternatives[held]->copy(table.emplace[*number](all), value.get());
    }
    interface.variant->store(table.entry(all, name), held, value.get());
}

} // namespace

void ReadAll(sd_bus_message* reply, void* value, const void* how)
{
    const auto& interface = *static_cast<const Interface*>(how);
    Enter(reply, SD_BUS_TYPE_ARRAY, "{sv}", step::enterMap);
    while (Enter(reply, SD_BUS_TYPE_DICT_ENTRY, "sv", step::enterTuple))
    {
        ReadOne(reply, interface, value);
        Exit(reply, step::exitTuple);
    }
    Exit(reply, step::exitMap);
}

} // namespace bmcbus::client
