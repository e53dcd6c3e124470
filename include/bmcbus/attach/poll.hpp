#pragma once

/**
 * @file
 * A connection in a `poll()` loop of the program's own.
 */

#include <bmcbus/attach/end.hpp>
#include <poll.h>

#include <utility>

namespace bmcbus::attach
{

/**
 * One entry of a poll set that stands for all that a connection has to do.
 *
 * Belongs to the thread of the connection, which it keeps. Needs no time-out of `poll()`: the
 * deadlines of calls make the entry readable.
 *
 * @code
 * bmcbus::attach::Poll attached;                     // the thread's default system bus
 * for (bool ended = false; !ended;)
 * {
 *     pollfd watched[] = {attached.Prepare(), others};
 *     poll(watched, 2, -1);
 *     ended = attached.Dispatch(watched[0]) < 0;
 * }
 * @endcode
 */
class Poll
{
  public:
    /**
     * Does not block.
     *
     * @param bus  null means the calling thread's default system bus
     * @throws bmcbus::Error when the connection has ended or descriptors are scarce
     */
    explicit Poll(sd_bus* bus = nullptr, EndHandler onEnd = {}) : link(bus, std::move(onEnd)) {}
    /** The same for a wrapped connection. */
    explicit Poll(Bus& bus, EndHandler onEnd = {}) : link(Connection(bus), std::move(onEnd)) {}

    Poll(const Poll&) = delete;
    Poll& operator=(const Poll&) = delete;

    /** What `poll()` is to watch; before each wait. After the end an entry that it passes over. */
    pollfd Prepare()
    {
        if (!link.Attached())
        {
            return {.fd = -1, .events = 0, .revents = 0};
        }
        link.Prepare();
        return {.fd = link.Descriptor(), .events = POLLIN, .revents = 0};
    }

    /**
     * Handles what has arrived, if `poll()` said so. Does not wait. Handlers of the connection that
     * run in it must not destroy this object.
     *
     * @return 0, or a negative errno once the connection has ended
     */
    int Dispatch(const pollfd& watched)
    {
        if (ended == 0 && watched.revents != 0)
        {
            ended = link.Dispatch();
            if (ended < 0)
            {
                const int error = ended;
                link.End(error);
                return error;
            }
        }
        return ended;
    }

  private:
    detail::Link link;
    int ended = 0;
};

} // namespace bmcbus::attach
