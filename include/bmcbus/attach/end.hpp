#pragma once

/**
 * @file
 * What the attachments to all kinds of loops share.
 */

#include <bmcbus/dispatcher.hpp>
#include <bmcbus/refs.hpp>
#include <bmcbus/sdbusplus.hpp>

#include <functional>
#include <utility>

namespace bmcbus::attach
{

/**
 * Called once, on the thread of the loop, when the connection has ended: the daemon closed it or is
 * gone. Not for a connection that the program closes itself, nor when the attachment is destroyed.
 *
 * Gets a negative errno (`-ECONNRESET`, `-ENOTCONN`). It may destroy the attachment. What it throws
 * passes through the loop, where the loop's language allows that; do not throw in a loop of C.
 */
using EndHandler = std::function<void(int error)>;

namespace detail
{

/** The calling thread's default system-bus connection in place of none. */
inline BusRef BusOrDefault(sd_bus* bus)
{
    if (bus != nullptr)
    {
        return BusRef(sd_bus_ref(bus));
    }
    const int result = sd_bus_default_system(&bus);
    if (result < 0)
    {
        throw Error(-result, "sd_bus_default_system");
    }
    return BusRef(bus);
}

/** The connection behind a loop's watch. Outlives its attachment while a handler of it runs. */
class Link
{
  public:
    Link(sd_bus* bus, EndHandler handler) :
        dispatcher(BusOrDefault(bus).get()), onEnd(std::move(handler))
    {
    }

    int Descriptor() const noexcept { return dispatcher.Descriptor(); }
    void Prepare() { dispatcher.Prepare(); }

    /** @return 0 while the loop is to go on watching; a negative errno when `End` is to follow */
    int Dispatch()
    {
        const int handled = dispatcher.Dispatch();
        return attached && handled < 0 ? handled : 0;
    }

    /** Tells the user, after the loop was taken off. */
    void End(int error)
    {
        attached = false;
        if (const EndHandler handler = std::exchange(onEnd, nullptr))
        {
            handler(error);
        }
    }

    bool Attached() const noexcept { return attached; }

    /** The attachment is gone: nobody is told of anything any more. */
    void Detach() noexcept { attached = false; }

  private:
    Dispatcher dispatcher;
    EndHandler onEnd;
    bool attached = true;
};

} // namespace detail
} // namespace bmcbus::attach
