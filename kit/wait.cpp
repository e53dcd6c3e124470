// All waiting is a loop of condition and short steps with a bound. On the bus a step is a message;
// its reference is kept, and only a wait that fails turns the last of them into text.

#include <bmcbus/testing/wait.hpp>

#include "check.hpp"
#include "wire_message.hpp"

#include <algorithm>
#include <deque>
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

uint64_t MicrosecondsOf(std::chrono::milliseconds time)
{
    return static_cast<uint64_t>(std::chrono::microseconds(time).count());
}

// The last messages that a connection dispatches, while the object lives.
class Arrivals
{
  public:
    explicit Arrivals(sd_bus* bus)
    {
        sd_bus_slot* raw = nullptr;
        if (sd_bus_add_filter(bus, &raw, Take, this) >= 0)
        {
            filter.reset(raw);
        }
    }

    std::string Text() const
    {
        std::string text = last.empty() ? "nothing came" : "came instead:";
        for (const Owned<sd_bus_message>& message : last)
        {
            sd_bus_message_rewind(message.get(), 1);
            text += "\n  " + Decode(message.get()).Text();
        }
        return text;
    }

  private:
    static int Take(sd_bus_message* message, void* self, sd_bus_error*)
    {
        auto& kept = static_cast<Arrivals*>(self)->last;
        kept.emplace_back(sd_bus_message_ref(message));
        if (kept.size() > most)
        {
            kept.pop_front();
        }
        return 0; // the others see it, too
    }

    static constexpr size_t most = 20;
    std::deque<Owned<sd_bus_message>> last;
    Owned<sd_bus_slot> filter;
};

bool DispatchAlone(sd_bus* bus, const std::function<bool()>& condition,
                   std::chrono::milliseconds bound)
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
        if (const int woken = sd_bus_wait(bus, MicrosecondsOf(step)); woken < 0 && woken != -EINTR)
        {
            return condition();
        }
    }
    return true;
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

bool Dispatch(sd_event* loop, const std::function<bool()>& condition,
              std::chrono::milliseconds bound)
{
    const Clock::time_point end = Clock::now() + bound;
    while (!condition())
    {
        if (const int ran = sd_event_run(loop, MicrosecondsOf(step));
            (ran < 0 && ran != -EINTR) || Clock::now() >= end)
        {
            return condition();
        }
    }
    return true;
}

Waited Dispatch(sd_bus* bus, const std::function<bool()>& condition,
                std::chrono::milliseconds bound)
{
    const Arrivals arrivals(bus);
    sd_event* const loop = sd_bus_get_event(bus);
    const bool idle = loop != nullptr && sd_event_get_state(loop) == SD_EVENT_INITIAL;
    if (idle ? Dispatch(
                   loop, [&] { return condition() || sd_bus_is_open(bus) <= 0; }, bound) &&
                   condition()
             : DispatchAlone(bus, condition, bound))
    {
        return Waited();
    }
    return Waited(arrivals.Text());
}

Waited Dispatch(const std::function<bool()>& condition, std::chrono::milliseconds bound)
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
