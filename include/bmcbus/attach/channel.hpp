#pragma once

/**
 * @file
 * The one-way channel in each kind of loop, for as long as an object lives.
 */

#include <bmcbus/sdbusplus.hpp>
#include <oneway_channel.hpp>
#include <poll.h>

#include <cerrno>
#include <utility>

namespace bmcbus::attach
{

/**
 * Has an sd-event loop, a `zloop` or an `io_context` drive the channel.
 *
 * Make and destroy it on the thread that runs the loop, which must outlive it. One registration at
 * a time in a process. Does not block. After fork() the child has none, see `oneway_channel.hpp`.
 *
 * @code
 * bmcbus::attach::Channel channel(io, &state); // &state: first argument of every function
 * std::thread producer([&] { OneWayChannel_Execute(Work, &data, sizeof data, 0); });
 * @endcode
 */
class Channel
{
  public:
    /** What runs on the loop's thread for a message without a function of its own. */
    using Function = infrautils::OneWayChannel::Function;

    /**
     * @param context  first argument of every function; stays the caller's
     * @param defaultFunction  for messages without a function; may be empty
     * @throws bmcbus::Error (`EBUSY`) when something is registered already, or what the loop's
     * library throws
     */
    explicit Channel(sd_event* loop, void* context = nullptr, Function defaultFunction = {})
    {
        sdeventplus::Event event(loop);
        Require(Instance().RegisterEventLoop(event, context, std::move(defaultFunction)));
    }

    /** The same for a zloop. */
    explicit Channel(zloop_t* loop, void* context = nullptr, Function defaultFunction = {})
    {
        Require(Instance().RegisterZLoop(loop, context, std::move(defaultFunction)));
    }

    /** The same for an io_context. */
    explicit Channel(boost::asio::io_context& io, void* context = nullptr,
                     Function defaultFunction = {})
    {
        Require(Instance().RegisterIOContext(io, context, std::move(defaultFunction)));
    }

    ~Channel() { OneWayChannel_Unregister(); }

    /** Wakes the loop once for a burst of posts: `OneWayChannel_WakeOncePerBurst`. */
    void WakeOncePerBurst() { OneWayChannel_WakeOncePerBurst(); }

    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

  private:
    static infrautils::OneWayChannel& Instance()
    {
        return *infrautils::OneWayChannel::GetInstance();
    }

    static void Require(int result)
    {
        if (result != 0)
        {
            throw Error(EBUSY, "OneWayChannel");
        }
    }
};

/**
 * The channel as an entry of a poll set. Belongs to the thread that polls.
 *
 * @code
 * bmcbus::attach::PollChannel channel(&state);
 * pollfd watched[] = {attached.Prepare(), channel.Prepare()};
 * poll(watched, 2, -1);
 * channel.Dispatch(watched[1]);
 * @endcode
 */
class PollChannel
{
  public:
    /** Takes the place of any other registration. The parameters are those of Channel. */
    explicit PollChannel(void* context = nullptr, OneWayChannelFunction defaultFunction = nullptr)
    {
        OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(&descriptor, context,
                                                                     defaultFunction);
    }

    ~PollChannel() { OneWayChannel_Unregister(); }

    /** Wakes the loop once for a burst of posts: `OneWayChannel_WakeOncePerBurst`. */
    void WakeOncePerBurst() { OneWayChannel_WakeOncePerBurst(); }

    PollChannel(const PollChannel&) = delete;
    PollChannel& operator=(const PollChannel&) = delete;

    /** What `poll()` is to watch. */
    pollfd Prepare() const { return {.fd = descriptor, .events = POLLIN, .revents = 0}; }

    /** Runs what is queued, if `poll()` said so. @return as `OneWayChannel_Process` */
    int Dispatch(const pollfd& watched)
    {
        return (watched.revents & POLLIN) != 0 ? OneWayChannel_Process(descriptor) : 0;
    }

  private:
    int descriptor = -1;
};

} // namespace bmcbus::attach
