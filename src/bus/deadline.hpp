#pragma once

// When a wait has lasted long enough, on sd-bus's own clock. For calls with the connection's
// timeout this is how to tell a timeout: sd-bus's errors do not tell every one from a peer that
// went away or answered by itself.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace bmcbus
{

namespace detail
{

// Microseconds of the monotonic clock.
inline uint64_t Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

} // namespace detail

class Deadline
{
  public:
    // Never passes.
    Deadline() = default;

    // Of a call that is sent on `bus` now. Never later than sd-bus's own deadline for it.
    explicit Deadline(sd_bus* bus)
    {
        uint64_t timeout = never;
        if (sd_bus_get_method_call_timeout(bus, &timeout) >= 0)
        {
            *this = In(timeout);
        }
    }

    // At a moment in microseconds of the monotonic clock.
    static Deadline At(uint64_t moment)
    {
        Deadline deadline;
        deadline.at_ = moment;
        return deadline;
    }

    // In so many microseconds from now.
    static Deadline In(uint64_t microseconds)
    {
        const uint64_t now = detail::Now();
        return At(microseconds > never - now ? never : now + microseconds);
    }

    bool IsSet() const { return at_ != never; }

    bool Passed() const { return IsSet() && detail::Now() >= at_; }

    // Microseconds; 0 when it has passed, the largest number when it never does.
    uint64_t Left() const
    {
        const uint64_t now = IsSet() ? detail::Now() : 0;
        return IsSet() ? (at_ > now ? at_ - now : 0) : never;
    }

  private:
    static constexpr uint64_t never = std::numeric_limits<uint64_t>::max();

    uint64_t at_ = never; // microseconds
};

} // namespace bmcbus
