#pragma once

// When the connection's method-call timeout runs out, on sd-bus's own clock. Its errors do not tell
// every timeout from a peer that went away or answered by itself; the time does.

#include <systemd/sd-bus.h>

#include <cstdint>
#include <ctime>
#include <limits>

namespace bmcbus
{

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
            const uint64_t now = Now();
            at_ = timeout > never - now ? never : now + timeout;
        }
    }

    bool Passed() const { return at_ != never && Now() >= at_; }

  private:
    static constexpr uint64_t never = std::numeric_limits<uint64_t>::max();

    static uint64_t Now()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
               static_cast<uint64_t>(now.tv_nsec) / 1'000;
    }

    uint64_t at_ = never; // microseconds
};

} // namespace bmcbus
