// Two connections: one monitors, on a thread; the other sends a mark whenever somebody asks. The
// bus keeps their order, so once the mark is seen, everything before it is recorded.

#include <bmcbus/testing/monitor.hpp>

#include "connect.hpp"
#include "fork.hpp"
#include "quiet_thread.hpp"
#include "wire_message.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>

namespace bmcbus::testing
{
namespace
{

constexpr const char* markInterface = "com.tamm.bmc.testing.Mark";
constexpr const char* driver = "org.freedesktop.DBus";

} // namespace

// Two connections: one listens, on the thread; the other sends marks, whose arrival at the listener
// shows that everything before them has arrived.
class Monitor::Recorder
{
  public:
    explicit Recorder(const std::string& address) :
        marker(Connect(address)), listener(Connect(address, true)), stop(eventfd(0, EFD_CLOEXEC))
    {
        Check(stop < 0 ? -errno : 0, "eventfd");
        const char* name = nullptr;
        Check(sd_bus_get_unique_name(marker.get(), &name), "connect to the bus");
        markerName = name;
        Check(sd_bus_get_unique_name(listener.get(), &name), "connect to the bus");
        listenerName = name;
        Check(sd_bus_call_method(listener.get(), driver, "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr,
                                 nullptr, "asu", 0U, 0U),
              "BecomeMonitor");
        thread = QuietThread([this] { Listen(); });
        Settle();
    }

    ~Recorder()
    {
        const uint64_t one = 1;
        static_cast<void>(!write(stop, &one, sizeof(one)));
        thread.join();
        close(stop);
    }

    const Home home;

    // Returns when everything that the bus had accepted is recorded.
    void Settle()
    {
        uint64_t mark = 0;
        {
            const std::lock_guard lock(markerMutex);
            mark = ++sentMark;
            const int sent =
                sd_bus_emit_signal(marker.get(), "/", markInterface, "Mark", "t", mark);
            if (sent < 0 || sd_bus_flush(marker.get()) < 0)
            {
                throw std::runtime_error("the monitored bus has gone");
            }
        }
        const bool seen = Until(
            [&]
            {
                const std::lock_guard lock(mutex);
                return seenMark >= mark || ended;
            });
        const std::lock_guard lock(mutex);
        if (!seen || seenMark < mark)
        {
            throw std::runtime_error("the monitored bus has gone");
        }
    }

    std::vector<WireMessage> Recorded() const
    {
        const std::lock_guard lock(mutex);
        return messages;
    }

    void Forget()
    {
        const std::lock_guard lock(mutex);
        messages.clear();
    }

  private:
    void Listen()
    {
        while (Drain() && Await())
        {
        }
        const std::lock_guard lock(mutex);
        ended = true;
    }

    // Takes what has arrived; false when the bus has gone.
    bool Drain()
    {
        while (true)
        {
            sd_bus_message* raw = nullptr;
            const int handled = sd_bus_process(listener.get(), &raw);
            const Owned<sd_bus_message> message(raw);
            if (handled <= 0)
            {
                return handled == 0;
            }
            if (message)
            {
                Take(message.get());
            }
        }
    }

    // False when it is time to stop.
    bool Await() const
    {
        const int events = sd_bus_get_events(listener.get());
        pollfd fds[] = {{sd_bus_get_fd(listener.get()), static_cast<short>(events), 0},
                        {stop, POLLIN, 0}};
        return events >= 0 && (poll(fds, 2, -1) >= 0 || errno == EINTR) && fds[1].revents == 0;
    }

    void Take(sd_bus_message* message)
    {
        WireMessage wire;
        try
        {
            wire = Decode(message);
        }
        catch (const std::system_error&)
        {
            return; // sd-bus lets no malformed message through; nothing to show otherwise
        }
        const std::lock_guard lock(mutex);
        if (wire.sender == markerName && wire.interface == markInterface)
        {
            seenMark = std::max(seenMark, wire.values.front().Get<uint64_t>());
        }
        else if (!Own(wire))
        {
            messages.push_back(std::move(wire));
        }
    }

    bool Own(const WireMessage& wire)
    {
        if (wire.interface == "org.freedesktop.DBus.Peer" && wire.destination == driver)
        {
            pings.emplace(wire.sender, wire.serial);
            return true;
        }
        const bool ours = wire.sender == markerName || wire.sender == listenerName ||
                          wire.destination == markerName || wire.destination == listenerName ||
                          NamesListener(wire);
        return ours || pings.erase({wire.destination, wire.replyTo}) > 0;
    }

    // Becoming a monitor costs the connection its name, which the bus announces.
    bool NamesListener(const WireMessage& wire) const
    {
        return wire.member == "NameOwnerChanged" && wire.sender == driver && !wire.values.empty() &&
               (wire.values.front() == Value(listenerName) ||
                wire.values.front() == Value(markerName));
    }

    std::mutex markerMutex;
    const Owned<sd_bus> marker; // guarded by markerMutex
    std::string markerName;
    uint64_t sentMark = 0;

    const Owned<sd_bus> listener; // used by the thread alone
    std::string listenerName;
    const int stop;

    mutable std::mutex mutex;
    std::vector<WireMessage> messages;
    std::set<std::pair<std::string, uint64_t>> pings;
    uint64_t seenMark = 0;
    bool ended = false;
    std::thread thread;
};

Monitor::Monitor(const std::string& address) :
    recorder(std::make_unique<Recorder>(address.empty() ? SystemBusAddress() : address))
{
    recorder->Settle();
}

Monitor::~Monitor()
{
    if (recorder && recorder->home.Left())
    {
        Abandon(recorder);
    }
}

std::vector<WireMessage> Monitor::Messages()
{
    recorder->Settle();
    return recorder->Recorded();
}

std::vector<WireMessage> Monitor::Messages(const Filter& filter)
{
    std::vector<WireMessage> all = Messages();
    std::erase_if(all, [&](const WireMessage& message) { return !filter(message); });
    return all;
}

std::vector<WireMessage> Monitor::Calls(const std::string& member)
{
    return Messages([&](const WireMessage& message)
                    { return message.type == "method_call" && message.member == member; });
}

std::vector<WireMessage> Monitor::Signals(const std::string& member)
{
    return Messages([&](const WireMessage& message)
                    { return message.type == "signal" && message.member == member; });
}

bool Monitor::WaitFor(const Filter& filter, size_t count, std::chrono::milliseconds bound) const
{
    return Until(
        [&]
        {
            const std::vector<WireMessage> all = recorder->Recorded();
            return static_cast<size_t>(std::count_if(all.begin(), all.end(), filter)) >= count;
        },
        bound);
}

void Monitor::Clear()
{
    recorder->Settle();
    recorder->Forget();
}

} // namespace bmcbus::testing
