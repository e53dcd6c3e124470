#pragma once

/**
 * @file
 * One descriptor for everything that a connection has to do.
 */

#include <bmcbus/export.h>
#include <bmcbus/refs.hpp>
#include <bmcbus/sdbusplus.hpp>

namespace bmcbus
{

/**
 * A connection as a loop that watches descriptors sees it: poll, zloop, asio.
 *
 * The connection's own descriptor does not become readable when a call's time runs out, nor for
 * messages that a blocking call has read and left in the queue. `Descriptor()` does, so a loop that
 * watches it for reading and calls `Dispatch()` then needs no timer and no other descriptor. In an
 * sd-event loop use `sd_bus_attach_event`; there all this comes by itself.
 *
 * Belongs to the thread of the connection, which it keeps alive. It may be destroyed in a forked
 * child, where it leaves the parent's watches alone; take it out of the parent's loop there first.
 *
 * @code
 * bmcbus::Dispatcher dispatcher(bus);
 * pollfd watched{.fd = dispatcher.Descriptor(), .events = POLLIN};
 * while (poll(&watched, 1, -1) >= 0 || errno == EINTR)
 *     if (dispatcher.Dispatch() < 0) break; // the connection has ended
 * @endcode
 */
class BMCBUS_EXPORT Dispatcher
{
  public:
    /** Throws `bmcbus::Error` when the connection has ended or descriptors are scarce. */
    explicit Dispatcher(sd_bus* bus);
    /** The same for a wrapped connection. */
    explicit Dispatcher(Bus& bus);
    ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    /** Readable whenever there is something to dispatch. Belongs to this object. */
    int Descriptor() const noexcept { return watch; }

    /**
     * Handles what has arrived and every call whose time has run out.
     *
     * Does not wait. When messages keep coming it ends after 2 ms and the handler that runs then;
     * the descriptor stays readable.
     *
     * @return how many messages were handled, or a negative errno when the connection has ended;
     * all its pending calls have been told then
     */
    int Dispatch();

    /**
     * Makes the descriptor readable when messages wait in the queue, and has it tell of room for
     * what could not be sent yet.
     *
     * This library's own calls see to that by themselves. Needed only after blocking calls that
     * somebody else made on the connection (`sd_bus_call`, sdbusplus); a loop that has a step
     * before each wait does it there. Does not block.
     */
    void Prepare();

  private:
    BMCBUS_LOCAL void Watch();

    BusRef connection;
    int watch = -1;
    int timer = -1;
    bool writing = false;
};

namespace detail
{

/** Has the loop that `bus` was attached to just now keep the deadlines that it has already. */
BMCBUS_EXPORT void FollowLoop(sd_bus* bus);

} // namespace detail

} // namespace bmcbus
