#include <bmcbus/testing/wait.hpp>

#include "check.hpp"

#include <algorithm>
#include <thread>

namespace bmcbus::testing
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds step{2};

Owned<sd_bus> DefaultSystemBus()
{
    sd_bus* raw = nullptr;
    Check(sd_bus_default_system(&raw), "sd_bus_default_system");
    return Owned<sd_bus>(raw);
}

} // namespace

bool Until(const std::function<bool()>& condition, std::chrono::milliseconds bound)
{
    const Clock::time_point end = Clock::now() + bound;
    while (!condition())
    {
        if (Clock::now() >= end)
        {
            return condition();
        }
        std::this_thread::sleep_for(step);
    }
    return true;
}

bool Dispatch(sd_bus* bus, const std::function<bool()>& condition, std::chrono::milliseconds bound)
{
    const Clock::time_point end = Clock::now() + bound;
    while (!condition())
    {
        const int handled = sd_bus_process(bus, nullptr);
        if (handled < 0 || Clock::now() >= end)
        {
            return condition();
        }
        if (handled > 0)
        {
            continue;
        }
        const auto nap = std::chrono::duration_cast<std::chrono::microseconds>(step).count();
        if (const int woken = sd_bus_wait(bus, static_cast<uint64_t>(nap));
            woken < 0 && woken != -EINTR)
        {
            return condition();
        }
    }
    return true;
}

bool Dispatch(const std::function<bool()>& condition, std::chrono::milliseconds bound)
{
    const Owned<sd_bus> bus = DefaultSystemBus();
    return Dispatch(bus.get(), condition, bound);
}

bool DispatchPending(sd_bus* bus, std::chrono::milliseconds bound)
{
    bool answered = false;
    sd_bus_slot* raw = nullptr;
    const auto onReply = [](sd_bus_message*, void* flag, sd_bus_error*)
    {
        *static_cast<bool*>(flag) = true;
        return 0;
    };
    // The daemon answers after everything that it had queued for this connection.
    if (sd_bus_call_method_async(bus, &raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.Peer", "Ping", onReply, &answered, "") < 0)
    {
        return false;
    }
    const Owned<sd_bus_slot> pending(raw);
    return Dispatch(
        bus, [&] { return answered; }, bound);
}

bool DispatchPending(std::chrono::milliseconds bound)
{
    const Owned<sd_bus> bus = DefaultSystemBus();
    return DispatchPending(bus.get(), bound);
}

} // namespace bmcbus::testing
