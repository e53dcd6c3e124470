#include <bmcbus/client/subscriber.hpp>

#include "bus/bus.hpp"
#include "bus/match.hpp"
#include "client/member_log.hpp"
#include "client/signal.hpp"

namespace bmcbus::client
{
namespace
{

constexpr const char* function = "ObjectCallback";

// What sd-bus calls; see the cached proxies for why it lets nothing through.
int OnSignal(sd_bus_message* message, void* user_data, sd_bus_error* /*error*/) noexcept
{
    const Anchor& anchor = *static_cast<Anchor*>(user_data);
    Received(anchor.object(), static_cast<const SignalClass&>(anchor.about()), message);
    return 0;
}

// Replaces all arguments; what a failed read leaves is cleared.
void ReadArguments(void* object, const SignalClass& about, sd_bus_message* message)
{
    for (const Field& field : about.fields.list)
    {
        about.fields.TypeOf(field).clear(Place(object, field.value));
    }
    for (const Field& field : about.fields.list)
    {
        about.fields.TypeOf(field).read(message, Place(object, field.value));
    }
    At<bool>(object, about.ready) = true;
    for (const Field& field : about.fields.list)
    {
        At<bool>(object, field.is_set) = true;
    }
}

} // namespace

void Subscribe(void* object, const SignalClass& about)
{
    const BusRef bus = DefaultBus();
    // A refused rule leaves an object that hears nothing.
    static_cast<void>(AddMatch(
        bus.get(), SignalRule(about.member, At<std::string>(object, about.path), about.interface),
        OnSignal, &At<Anchor>(object, about.anchor), At<Slot>(object, about.match)));
}

void Received(void* object, const SignalClass& about, sd_bus_message* message)
{
    CLIENT_LOG_FORMAT(trace, about.label, function, about.enter);
    Callbacks callbacks;
    {
        const std::lock_guard lock(At<std::mutex>(object, about.object_mutex));
        try
        {
            ReadArguments(object, about, message);
            CountSignal(object, about);
            callbacks = At<Callbacks>(object, about.callbacks);
        }
        catch (const std::exception& error)
        {
            LogException(about.label, function, "", error);
            return;
        }
    }
    RunCallbacks(object, about, function, callbacks);
}

} // namespace bmcbus::client
