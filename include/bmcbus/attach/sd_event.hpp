#pragma once

/**
 * @file
 * A connection in an sd-event loop.
 */

#include <bmcbus/attach/end.hpp>
#include <systemd/sd-event.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace bmcbus::attach
{

/**
 * Has an sd-event loop dispatch a connection, for as long as this object lives.
 *
 * `sd_bus_attach_event` with an owner, and with word of the connection's end. Make and destroy it
 * on the thread that runs the loop. Keeps the connection; sd-bus keeps the loop.
 *
 * @code
 * sd_event* loop = nullptr;
 * sd_event_default(&loop);
 * bmcbus::attach::SdEvent attached(loop, nullptr, [&](int error) { sd_event_exit(loop, error); });
 * sd_event_loop(loop);
 * @endcode
 */
class SdEvent
{
  public:
    /**
     * Does not block.
     *
     * @param bus  null means the calling thread's default system bus
     * @param priority  of the connection's messages among the loop's sources
     * @throws bmcbus::Error when the connection has ended, or is in a loop already (`EBUSY`)
     */
    explicit SdEvent(sd_event* loop, sd_bus* bus = nullptr, EndHandler onEnd = {},
                     int priority = SD_EVENT_PRIORITY_NORMAL) :
        state(std::make_unique<State>())
    {
        state->bus = detail::BusOrDefault(bus);
        state->onEnd = std::move(onEnd);
        sd_bus_slot* slot = nullptr;
        Require(sd_bus_add_match(state->bus.get(), &slot, endRule, OnEnd, state.get()),
                "sd_bus_add_match");
        state->end.reset(slot);
        Require(sd_bus_attach_event(state->bus.get(), loop, priority), "sd_bus_attach_event");
        state->attached = true;
        bmcbus::detail::FollowLoop(state->bus.get());
    }

    /** The same for a wrapped connection. */
    SdEvent(sd_event* loop, Bus& bus, EndHandler onEnd = {}) :
        SdEvent(loop, Connection(bus), std::move(onEnd))
    {
    }

    SdEvent(const SdEvent&) = delete;
    SdEvent& operator=(const SdEvent&) = delete;

  private:
    struct State
    {
        State() = default;
        State(const State&) = delete;
        State& operator=(const State&) = delete;
        ~State()
        {
            if (attached)
            {
                sd_bus_detach_event(bus.get());
            }
        }

        BusRef bus;
        Slot end;
        EndHandler onEnd;
        bool attached = false;
    };

    // Made by sd-bus itself: nothing is asked of the daemon.
    static constexpr const char* endRule =
        "type='signal',sender='org.freedesktop.DBus.Local',path='/org/freedesktop/DBus/Local',"
        "interface='org.freedesktop.DBus.Local',member='Disconnected'";

    static int OnEnd(sd_bus_message* /*signal*/, void* of, sd_bus_error* /*error*/)
    {
        // The attachment may go in it, and this with it.
        if (const EndHandler handler = std::exchange(static_cast<State*>(of)->onEnd, nullptr))
        {
            handler(-ECONNRESET);
        }
        return 0;
    }

    static void Require(int result, const char* step)
    {
        if (result < 0)
        {
            throw Error(-result, step);
        }
    }

    std::unique_ptr<State> state;
};

} // namespace bmcbus::attach
