// Subscribers to data signals: each signal replaces all arguments, then callbacks run without the
// lock.

#include <bmcbus/client/subscriber.hpp>

#include "bus/bus.hpp"
#include "bus/match.hpp"
#include "client/member_log.hpp"
#include "client/signal.hpp"

#include <bmcbus/sdbusplus.hpp>

namespace bmcbus::client
{
namespace
{

constexpr const char* function = "ObjectCallback";

const SignalClass& About(const Anchor& anchor)
{
    return static_cast<const SignalClass&>(anchor.about());
}

// Replaces all arguments; what a failed read leaves is cleared.
void ReadArguments(Anchor& anchor, sd_bus_message* message)
{
    const std::span<const Field> fields = anchor.about().fields.list;
    for (const Field& field : fields)
    {
        anchor.TypeOf(field).clear(anchor.Value(field));
    }
    for (const Field& field : fields)
    {
        anchor.TypeOf(field).read(message, anchor.Value(field));
    }
    anchor.ready() = true;
    for (size_t i = 0; i < fields.size(); ++i)
    {
        anchor.IsSet(i) = true;
    }
}

void Handle(Anchor& anchor, sd_bus_message* message)
{
    const SignalClass& about = About(anchor);
    CLIENT_LOG_FORMAT(trace, about.label, function, about.enter);
    CallbackList callbacks;
    {
        const std::lock_guard lock(anchor.mutex());
        try
        {
            ReadArguments(anchor, message);
            CountSignal(anchor.signal_count());
            callbacks = CopyCallbacks(anchor);
        }
        catch (const std::exception& error)
        {
            LogException(about.label, function, "", error);
            return;
        }
    }
    RunCallbacks(anchor, function, callbacks);
}

// What sd-bus calls; see the cached proxies for why it lets nothing through.
int OnSignal(sd_bus_message* message, void* anchor, sd_bus_error* /*error*/) noexcept
{
    Handle(*static_cast<Anchor*>(anchor), message);
    return 0;
}

} // namespace

void Subscribe(Anchor& anchor, Callback first)
{
    const SignalClass& about = About(anchor);
    const BusRef bus = DefaultBus();
    // A refused rule leaves an object that hears nothing.
    static_cast<void>(AddMatch(bus.get(), SignalRule(about.member, anchor.path(), about.interface),
                               OnSignal, &anchor, about.match(anchor.object())));
    AddCallback(anchor, first);
}

void* Make(std::string& path, Callback first, const Registry& registry)
{
    const auto& about = static_cast<const SignalClass&>(*registry.about);
    MadeObject object(about.make(std::move(path)), about.destroy);
    Subscribe(about.anchor(object.get()), first);
    Save(object.get(), registry);
    return object.release();
}

void Received(Anchor& anchor, Message& message)
{
    Handle(anchor, message.get());
}

} // namespace bmcbus::client
