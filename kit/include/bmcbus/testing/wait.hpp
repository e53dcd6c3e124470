#pragma once

/**
 * @file
 * Waiting for something to become true instead of for time to pass.
 *
 * Any thread may call these functions; they block the calling thread at most for the bound.
 */

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>

namespace bmcbus::testing
{

/**
 * How long to wait for what should happen at once: generous, for emulators, sanitizers and machines
 * under load. Only a failing test waits that long.
 */
inline constexpr std::chrono::milliseconds patience{30000};

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
 * @return the condition's last answer: false when @p bound has passed or the connection has ended
 */
bool Dispatch(sd_bus* bus, const std::function<bool()>& condition,
              std::chrono::milliseconds bound = patience);

/**
 * The same for the calling thread's default system-bus connection, which stays connected meanwhile.
 *
 * Throws std::system_error when there is no bus.
 */
bool Dispatch(const std::function<bool()>& condition, std::chrono::milliseconds bound = patience);

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
