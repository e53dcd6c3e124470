// Calls of direct proxies with a result: which message an operation sends, and where in the result
// the reply's values go.

#include <bmcbus/client/calls.hpp>

#include "bus/bus.hpp"
#include "bus/call_errors.hpp"
#include "bus/call_message.hpp"
#include "client/value.hpp"

#include <bmcbus/client/object.hpp>

#include <cstring>
#include <optional>

namespace bmcbus::client
{
namespace
{

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

void AppendName(sd_bus_message* call, const char* name)
{
    AppendBasic(call, SD_BUS_TYPE_STRING, name);
}

const char* MemberOf(const Operation& operation)
{
    switch (operation.id.ask)
    {
        case Ask::Get:
            return "Get";
        case Ask::Set:
            return "Set";
        case Ask::GetAll:
            return "GetAll";
        default:
            return operation.target.interface->methods[operation.id.number].name;
    }
}

void AppendProperty(sd_bus_message* call, const Operation& operation)
{
    const Interface& interface = *operation.target.interface;
    AppendName(call, interface.name);
    if (operation.id.ask == Ask::GetAll)
    {
        return;
    }
    const Property& property = interface.properties[operation.id.number];
    AppendName(call, interface.NameOf(property));
    if (operation.id.ask == Ask::Set)
    {
        const Type& type = interface.TypeOf(property);
        Open(call, SD_BUS_TYPE_VARIANT, type.signature);
        type.append(call, *operation.in);
        Close(call);
    }
}

void AppendArguments(sd_bus_message* call, const Operation& operation)
{
    if (operation.id.ask != Ask::Method)
    {
        AppendProperty(call, operation);
        return;
    }
    const void* const* in = operation.in;
    for (const Type* type : operation.target.interface->methods[operation.id.number].in)
    {
        type->append(call, *in++);
    }
}

constexpr bmcbus::detail::ReplyType emptyReply = {
    .signature = "", .property = false, .read = ReadNothing, .how = nullptr};

} // namespace

void ReadNothing(sd_bus_message* /*reply*/, void* /*value*/, const void* /*how*/) {}

MessageRef MakeCall(const Operation& operation, CallError& refusal) noexcept
{
    const Target& target = operation.target;
    const char* const interface =
        operation.id.ask == Ask::Method ? target.interface->name : propertiesInterface;
    const char* const member = MemberOf(operation);
    MessageRef call;
    if (target.service.empty())
    {
        refusal = bmcbus::detail::RefusedError("No service is known for ", target.path.c_str());
        return call;
    }
    try
    {
        call = NewCallOn(target.bus.get(), target.service, target.path, interface, member);
        AppendArguments(call.get(), operation);
    }
    catch (const std::exception& error)
    {
        refusal =
            call ? bmcbus::detail::Refusal(error)
                 : bmcbus::detail::Refusal(error, {target.service, target.path, interface, member});
        call.reset();
    }
    return call;
}

const bmcbus::detail::ReplyType& ReplyOf(const Operation& operation) noexcept
{
    const Interface& interface = *operation.target.interface;
    switch (operation.id.ask)
    {
        case Ask::Get:
            return interface.replies[interface.properties[operation.id.number].type_index];
        case Ask::Set:
            return emptyReply;
        case Ask::GetAll:
            return interface.all->reply;
        default:
            return interface.methods[operation.id.number].reply;
    }
}

bool Exchange(const Operation& operation, const CallOptions& options, void* value,
              CallError& error) noexcept
{
    const MessageRef call = MakeCall(operation, error);
    return call && bmcbus::detail::Exchange(call.get(), options, ReplyOf(operation), value, error);
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
        const Type& type = *interface.alternatives[held];
        type.copy(type.emplace(Place(all, table.places[*number])), value.get());
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
