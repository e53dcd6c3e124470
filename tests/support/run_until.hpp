#pragma once

// Runs an event loop of each kind until a condition holds, and no longer than a generous bound. The
// result is the condition's: false when the bound has passed or the loop failed.

#include <bmcbus/testing/wait.hpp>
#include <czmq.h>
#include <poll.h>
#include <systemd/sd-event.h>

#include <boost/asio/io_context.hpp>

#include <chrono>
#include <functional>

namespace test
{

using Condition = std::function<bool()>;

class Deadline
{
  public:
    bool Passed() const { return std::chrono::steady_clock::now() > end; }

  private:
    std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + 4 * bmcbus::testing::patience;
};

// `turn` lets the loop work for some milliseconds; false ends it.
template <class Turn>
bool RunTurns(const Condition& done, Turn turn)
{
    for (const Deadline deadline; !done();)
    {
        if (deadline.Passed() || !turn())
        {
            return false;
        }
    }
    return true;
}

inline bool RunUntil(sd_event* loop, const Condition& done)
{
    return RunTurns(done, [&] { return sd_event_run(loop, 10000) >= 0; });
}

inline bool RunUntil(boost::asio::io_context& io, const Condition& done)
{
    return RunTurns(done,
                    [&]
                    {
                        io.restart();
                        io.run_one_for(std::chrono::milliseconds(10));
                        return true;
                    });
}

// The loop must be one that does not stop for signals. A turn is ended by a timer, which a loop
// that has run removes at once; one that has not started yet would still call it.
inline bool RunUntil(zloop_t* loop, const Condition& done)
{
    return RunTurns(done,
                    [&]
                    {
                        const int timer = zloop_timer(
                            loop, 2, 1, [](zloop_t*, int, void*) { return -1; }, nullptr);
                        zloop_start(loop);
                        return zloop_timer_end(loop, timer) == 0;
                    });
}

// `readable` is called whenever the descriptor is; false ends the loop.
template <class Readable>
bool PollUntil(int fd, const Condition& done, Readable readable)
{
    return RunTurns(done,
                    [&]
                    {
                        pollfd end{.fd = fd, .events = POLLIN, .revents = 0};
                        return poll(&end, 1, 10) <= 0 || readable();
                    });
}

} // namespace test
