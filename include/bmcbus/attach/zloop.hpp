#pragma once

/**
 * @file
 * A connection in a CZMQ `zloop`. The program links CZMQ itself.
 */

#include <bmcbus/attach/end.hpp>
#include <czmq.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace bmcbus::attach
{

/**
 * Has a `zloop` dispatch a connection, for as long as this object lives.
 *
 * Make and destroy it on the thread that runs the loop, and destroy it before the loop. Keeps the
 * connection. A forked child may destroy it.
 *
 * @code
 * zloop_t* loop = zloop_new();
 * {
 *     bmcbus::attach::ZLoop attached(loop, nullptr, [&](int) { zloop_... });
 *     zloop_start(loop);
 * }
 * zloop_destroy(&loop);
 * @endcode
 */
class ZLoop
{
  public:
    /**
     * Does not block.
     *
     * @param bus  null means the calling thread's default system bus
     * @throws bmcbus::Error when the connection has ended or memory or descriptors are scarce
     */
    explicit ZLoop(zloop_t* loop, sd_bus* bus = nullptr, EndHandler onEnd = {}) :
        state(std::make_shared<State>(loop, bus, std::move(onEnd)))
    {
        if (zloop_poller(loop, &state->item, OnReadable, state.get()) < 0)
        {
            throw Error(ENOMEM, "zloop_poller");
        }
    }

    /** The same for a wrapped connection. */
    ZLoop(zloop_t* loop, Bus& bus, EndHandler onEnd = {}) :
        ZLoop(loop, Connection(bus), std::move(onEnd))
    {
    }

    ~ZLoop()
    {
        state->Remove();
        state->link.Detach();
    }

    ZLoop(const ZLoop&) = delete;
    ZLoop& operator=(const ZLoop&) = delete;

  private:
    struct State : std::enable_shared_from_this<State>
    {
        State(zloop_t* watching, sd_bus* bus, EndHandler onEnd) :
            link(bus, std::move(onEnd)), loop(watching)
        {
            item.fd = link.Descriptor();
            item.events = ZMQ_POLLIN;
        }

        void Remove()
        {
            if (link.Attached())
            {
                zloop_poller_end(loop, &item);
            }
        }

        detail::Link link;
        zloop_t* loop;
        zmq_pollitem_t item = {};
    };

    static int OnReadable(zloop_t* /*loop*/, zmq_pollitem_t* /*item*/, void* of)
    {
        const auto state = static_cast<State*>(of)->shared_from_this();
        const int ended = state->link.Dispatch();
        if (ended < 0)
        {
            state->Remove();
            state->link.End(ended);
        }
        return 0;
    }

    std::shared_ptr<State> state;
};

} // namespace bmcbus::attach
