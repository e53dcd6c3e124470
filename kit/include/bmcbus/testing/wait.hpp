#pragma once

/**
 * @file
 * Waiting for something to become true instead of for time to pass.
 *
 * Any thread may call these functions; they block the calling thread at most for the bound.
 */

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>

namespace bmcbus::testing
{

/**
 * How long to wait for what should happen at once: generous, for emulators, sanitizers and machines
 * under load. Only a failing test waits that long.
 */
inline constexpr std::chrono::milliseconds patience{30000};

/**
 * How waiting ended: true when what was waited for came; otherwise Instead() says what came.
 *
 * GoogleTest's EXPECT_TRUE and ASSERT_TRUE print that by themselves.
 */
class Waited
{
  public:
    /** It came. */
    Waited() = default;
    /** It did not; @p else_ came. */
    explicit Waited(std::string else_) : came(false), instead(std::move(else_)) {}

    /** True when it came. */
    operator bool() const { return came; }

    /** What came instead, a line for each; empty when what was waited for came. */
    const std::string& Instead() const { return instead; }

    /** For GoogleTest, whose assertions show the text of an AssertionResult. */
    template <class Assertion>
    requires requires(Assertion result, std::string text)
    {
        result.failure_message();
        result << text;
    }
    operator Assertion() const
    {
        Assertion result(came);
        return came ? result : result << "\n" << instead;
    }

  private:
    bool came = true;
    std::string instead;
};

/**
 * Waits until @p condition holds, asking it again every few milliseconds.
 *
 * @return the condition's last answer: false when @p bound has passed
 */
bool Until(const std::function<bool()>& condition, std::chrono::milliseconds bound = patience);

/**
 * Dispatches @p bus on the calling thread, which must be the one it belongs to, until @p condition
 * holds. The condition is asked before every message and at least every few milliseconds.
 *
 * When the connection is attached to an sd-event loop, that loop is run, with its timers and
 * whatever else it has; from inside one of its handlers only @p bus is dispatched.
 *
 * @return the condition's last answer: false when @p bound has passed or the connection has ended;
 * it tells the last messages that were dispatched
 */
Waited Dispatch(sd_bus* bus, const std::function<bool()>& condition,
                std::chrono::milliseconds bound = patience);

/**
 * The same for the calling thread's default system-bus connection, which stays connected meanwhile.
 *
 * Throws std::system_error when there is no bus.
 */
Waited Dispatch(const std::function<bool()>& condition, std::chrono::milliseconds bound = patience);

/**
 * Runs an sd-event loop on the calling thread until @p condition holds, which is asked before each
 * of its events and at least every few milliseconds.
 *
 * @return the condition's last answer: false when @p bound has passed or the loop has ended
 */
bool Dispatch(sd_event* loop, const std::function<bool()>& condition,
              std::chrono::milliseconds bound = patience);

/**
 * The same for a `boost::asio::io_context`, which is included by whoever uses this; its connections
 * to the bus are those of its own handlers.
 */
template <class Context>
requires requires(Context& context, std::chrono::milliseconds time)
{
    context.restart();
    context.run_one_for(time);
}
bool Dispatch(Context& context, const std::function<bool()>& condition,
              std::chrono::milliseconds bound = patience)
{
    constexpr std::chrono::milliseconds step{2};
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
        {
            return condition();
        }
        context.restart();
        context.run_one_for(step);
    }
    return true;
}

/**
 * Dispatches @p bus until everything that the bus daemon sent before this call has been handled:
 * signals that were on their way, replies that were there. For "nothing happens" tests.
 *
 * @return false when @p bound has passed or the connection has ended
 */
bool DispatchPending(sd_bus* bus, std::chrono::milliseconds bound = patience);

/** The same for the calling thread's default system-bus connection. */
bool DispatchPending(std::chrono::milliseconds bound = patience);

} // namespace bmcbus::testing
