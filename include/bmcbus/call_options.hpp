#pragma once

/**
 * @file
 * How long a call may take. Values that any thread may make, copy and ask.
 */

#include <bmcbus/export.h>

#include <cstdint>
#include <limits>
#include <mutex> // for durations and their literals: <chrono> takes long to compile
#include <type_traits>

namespace bmcbus
{

namespace detail
{

/** Microseconds of the monotonic clock in so many from now. */
BMCBUS_EXPORT uint64_t MomentIn(int64_t microseconds);

} // namespace detail

/**
 * A moment until which calls must have ended, to be shared by several of them.
 *
 * @code
 * const bmcbus::CallDeadline deadline(500ms);
 * const auto fans = thermal.Try_Get_fanCount({.deadline = deadline});
 * const auto power = reporting.Try_Get_SystemInputPower({.deadline = deadline}); // what is left
 * @endcode
 */
class CallDeadline
{
  public:
    /** Never passes. */
    constexpr CallDeadline() = default;

    /** Passes @p from_now from now; has passed when that is zero or negative. */
    explicit CallDeadline(std::chrono::microseconds from_now) :
        at(detail::MomentIn(from_now.count()))
    {
    }

    /** Whether it has passed. */
    BMCBUS_EXPORT bool Passed() const;

    /** What is left; zero when it has passed, `max()` when it never passes. */
    BMCBUS_EXPORT std::chrono::microseconds Remaining() const;

    /** The moment in microseconds of the monotonic clock; the type's greatest value: never. */
    constexpr uint64_t At() const { return at; }

    /** By the moment. */
    friend constexpr bool operator==(const CallDeadline&, const CallDeadline&) = default;

  private:
    uint64_t at = std::numeric_limits<uint64_t>::max();
};

/**
 * How a call is made: `{.timeout = 200ms}`, `{.deadline = shared}`, or both, when the earlier
 * counts.
 *
 * The clock runs from the moment of sending, also while the connection is still being set up.
 */
struct CallOptions
{
    /**
     * Zero: the connection's own (25 s, or `sd_bus_set_method_call_timeout`). `max()`: none. A
     * negative one has run out. What is left of a deadline belongs into `deadline`: none left is
     * zero.
     */
    std::chrono::microseconds timeout{};
    /** Shared with other calls. One that has passed ends the call before it is sent. */
    CallDeadline deadline{};
};

// g++ 12 destroys the temporaries of `co_await f({.timeout = ...})` twice.
static_assert(std::is_trivially_destructible_v<CallOptions>);

/** The connection's own timeout. One object for all calls: each would make its own otherwise. */
inline constexpr CallOptions defaultCallOptions{};

} // namespace bmcbus
