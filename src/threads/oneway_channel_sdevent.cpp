// The flat registration for an sd-event loop. The member function takes a wrapper of the loop,
// which is made here and kept for the life of the process.

#include <oneway_channel.hpp>

#include "log.hpp"
#include "threads/oneway_channel_internal.hpp"

#include <new>
#include <optional>

namespace
{

// Made by the first successful registration and kept for the life of the process: nothing may be
// dropped at exit, when the loop's library may be gone.
std::optional<sdeventplus::Event>& TheEvent()
{
    alignas(std::optional<sdeventplus::Event>) static std::byte
        place[sizeof(std::optional<sdeventplus::Event>)];
    static auto* const event = new (place) std::optional<sdeventplus::Event>;
    return *event;
}

} // namespace

int OneWayChannel_RegisterSDEvent(sd_event* event, void* context)
{
    std::optional<sdeventplus::Event>& wrapper = TheEvent();
    if (wrapper)
    {
        return infrautils::channel::alreadyRegistered;
    }
    try
    {
        wrapper.emplace(event);
        infrautils::OneWayChannel::GetInstance()->RegisterEventLoop(*wrapper, context, {});
        return infrautils::channel::success;
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG(failure, "Error in Register : %s", e.what());
        wrapper.reset();
        return infrautils::channel::registerFailed;
    }
}
