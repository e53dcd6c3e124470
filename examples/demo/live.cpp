// Following: cached proxies, signal subscribers and live objects on an event loop.

#include "acts.hpp"
#include "picture.hpp"

#include <bmcbus/live.hpp>
#include <com/tamm/bmc/Memory/Dimm/client_cache.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <sstream>

namespace demo
{
namespace
{

namespace Cache = ClientCache::com::tamm::bmc;
using Fans = Cache::Thermal::FanReporting;
using Power = Cache::power::PowerReporting;
using FanData = ClientCache::FanReporting::notifyFanReportingData;
using DimmPower = ClientCache::Dimm::DIMMPowerTelemetry;
using PowerData = ClientCache::PowerReporting::NotifyPwrReportingData;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* chassisFans = "/com/tamm/bmc/thermal/fans/chassis";
constexpr const char* fanService = "com.tamm.bmc.Thermal";
constexpr const char* systemPower = "/com/tamm/bmc/power/system";
constexpr milliseconds bound{10000}; // for what should happen at once
constexpr size_t remembered = 200;   // power values

// The event loop that dispatches this thread's connection: with sd-event the connection attaches
// itself, and messages that a blocking call pulled in are dispatched like all others.
class Loop
{
  public:
    Loop()
    {
        sd_bus_default_system(&bus);
        sd_event_new(&event);
        sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
    }
    ~Loop()
    {
        sd_bus_detach_event(bus);
        sd_event_unref(event);
        sd_bus_unref(bus);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Runs until `done`, at most for `limit`; the result is what `done` says then.
    bool RunUntil(const std::function<bool()>& done, milliseconds limit = bound)
    {
        const auto end = steady_clock::now() + limit;
        while (!done() && steady_clock::now() < end && !interrupted)
        {
            sd_event_run(event, 50000);
        }
        return done();
    }

    // Has the simulator stop or start one of its services.
    bool Tell(const char* method, const char* service)
    {
        return sd_bus_call_method(bus, "com.tamm.bmc.Simulator", "/com/tamm/bmc/simulator",
                                  "com.tamm.bmc.Simulator", method, nullptr, nullptr, "s",
                                  service) >= 0;
    }

    static volatile std::sig_atomic_t interrupted;

  private:
    sd_bus* bus = nullptr;
    sd_event* event = nullptr;
};

volatile std::sig_atomic_t Loop::interrupted = 0;

// Ctrl-C ends the loop, so that the terminal is put back in order.
class Interruptible
{
  public:
    Interruptible()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) { Loop::interrupted = 1; };
        sigaction(SIGINT, &action, &before);
    }
    ~Interruptible()
    {
        sigaction(SIGINT, &before, nullptr);
        if (Loop::interrupted != 0)
        {
            std::raise(SIGINT);
        }
    }
    Interruptible(const Interruptible&) = delete;
    Interruptible& operator=(const Interruptible&) = delete;

  private:
    struct sigaction before = {};
};

// The objects that follow the machine, and the picture of them.
class Follower
{
  public:
    Follower() : picture(MakePicture())
    {
        fans = Fans::Create(chassisFans);
        fanData = FanData::Create(chassisFans, OnData, this);
        power = Power::Create(systemPower, OnPower, this, true);
        powerData = PowerData::Create(systemPower, OnData, this);
    }
    ~Follower()
    {
        Fans::Cleanup();
        Power::Cleanup();
        FanData::Cleanup();
        PowerData::Cleanup();
    }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    void Show(const std::string& happening)
    {
        scene.happening = happening;
        Draw();
    }

    void Draw()
    {
        scene.fans = fans->Get_fanPWMData();
        scene.fansReady = fans->Ready();
        scene.powerReady = power->Ready();
        scene.fanSignals = static_cast<unsigned int>(fans->SignalCount());
        scene.powerSignals = static_cast<unsigned int>(power->SignalCount());
        scene.live.clear();
        std::istringstream table(bmcbus::ReportLiveTable());
        for (std::string line; std::getline(table, line);)
        {
            scene.live.push_back(line);
        }
        picture->Draw(scene);
    }

    Fans* fans = nullptr;
    FanData* fanData = nullptr;
    Power* power = nullptr;
    PowerData* powerData = nullptr;
    bmcbus::Live<Fans> liveFans{nullptr, chassisFans};
    bmcbus::LiveSignal<DimmPower> dimm{
        nullptr, "/com/tamm/bmc/memory/dimm/A1", {.service = "com.tamm.bmc.Memory"}};
    Scene scene;

  private:
    static void OnPower(Power* power, void* self)
    {
        auto& follower = *static_cast<Follower*>(self);
        // A change of another property may come before the first complete read.
        const double watts = power->Get_SystemInputPower();
        if (watts <= 0)
        {
            return;
        }
        follower.scene.watts.push_back(watts);
        if (follower.scene.watts.size() > remembered)
        {
            follower.scene.watts.pop_front();
        }
        follower.Draw();
    }
    template <class Subscriber>
    static void OnData(Subscriber*, void* self)
    {
        ++static_cast<Follower*>(self)->scene.dataSignals;
    }

    std::unique_ptr<Picture> picture;
};

struct Outcome
{
    bool blockingReady = false;
    bool asyncWasEmpty = false;
    bool asyncReady = false;
    double asyncMilliseconds = 0;
    bool followed = false;
    bool wentAway = false;
    bool failedMeanwhile = false;
    bool cameBack = false;
    bool followedAgain = false;
    bool unplugged = false;
    bool plugged = false;
    bool crashed = false;
    bool returned = false;
    Scene last;
};

// The service of the fans says goodbye, leaves, and comes back.
void LoseAndFind(Loop& loop, Follower& follower, Outcome& outcome)
{
    follower.Show("the service of the fans goes away");
    outcome.wentAway = loop.Tell("StopService", fanService) &&
                       loop.RunUntil([&] { return !follower.fans->Ready(); });
    bool ok = true;
    uint8_t count = 0;
    ClientEdge::com::tamm::bmc::Thermal::FanReporting(fanService, chassisFans)
        .Get_fanCount(ok, count);
    outcome.failedMeanwhile = !ok;
    follower.Show("the service of the fans is away");
    const auto until = steady_clock::now() + milliseconds(1000);
    loop.RunUntil([&] { return steady_clock::now() > until; });

    follower.Show("the service of the fans is back");
    outcome.cameBack = loop.Tell("StartService", fanService) &&
                       loop.RunUntil([&] { return follower.fans->Ready(); });
    const unsigned int before = follower.fanData->SignalCount();
    outcome.followedAgain =
        loop.RunUntil([&] { return follower.fanData->SignalCount() > before + 2; });
}

// A memory module goes and comes; the service of the fans crashes, with no word to anybody, and
// returns. Live objects notice both.
void UnplugAndCrash(Loop& loop, Follower& follower, Outcome& outcome)
{
    using bmcbus::LiveState;
    const auto becomes = [&](const auto& live, LiveState state)
    { return loop.RunUntil([&] { return live.State() == state; }); };
    becomes(follower.dimm, LiveState::Live);
    becomes(follower.liveFans, LiveState::Live);
    outcome.unplugged = loop.Tell("UnplugDimm", "A1") && becomes(follower.dimm, LiveState::Lost);
    follower.Show("memory module A1 is unplugged");
    outcome.plugged = loop.Tell("PlugDimm", "A1") && becomes(follower.dimm, LiveState::Live);
    follower.Show("memory module A1 is plugged again");
    outcome.crashed =
        loop.Tell("CrashService", fanService) && becomes(follower.liveFans, LiveState::Lost);
    follower.Show("the service of the fans has crashed");
    const auto until = steady_clock::now() + milliseconds(500);
    loop.RunUntil([&] { return steady_clock::now() > until; });
    outcome.returned =
        loop.Tell("StartService", fanService) && becomes(follower.liveFans, LiveState::Live);
    follower.Show("the service of the fans has returned");
}

Outcome Follow(unsigned int seconds)
{
    Outcome outcome;
    Loop loop;
    const Interruptible interruptible;
    const auto begin = steady_clock::now();
    Follower follower;
    outcome.blockingReady = follower.fans->Ready();
    outcome.asyncWasEmpty = !follower.power->Ready();
    outcome.asyncReady = loop.RunUntil([&] { return follower.power->Ready(); });
    outcome.asyncMilliseconds =
        std::chrono::duration<double, std::milli>(steady_clock::now() - begin).count();

    follower.Show("values as they arrive");
    const auto half = begin + milliseconds(seconds * 500);
    outcome.followed = loop.RunUntil(
        [&]
        {
            return steady_clock::now() > half && follower.power->SignalCount() >= 3 &&
                   follower.fanData->Ready() && follower.powerData->Ready();
        },
        milliseconds(seconds * 500) + bound);
    LoseAndFind(loop, follower, outcome);
    UnplugAndCrash(loop, follower, outcome);
    follower.Show("values as they arrive, again");
    const auto end = begin + milliseconds(seconds * 1000);
    loop.RunUntil([&] { return steady_clock::now() > end; }, milliseconds(seconds * 1000));
    follower.Draw();
    outcome.last = follower.scene;
    return outcome;
}

} // namespace

void Live(Report& report, unsigned int seconds)
{
    report.Title("Cached proxies, signal subscribers and live objects on an sd-event loop");
    const Outcome outcome = Follow(seconds);
    const Scene& last = outcome.last;
    report.Expect("a proxy created in one blocking step has its values", outcome.blockingReady);
    report.Expect("an asynchronous one was empty at first, and complete after " +
                      std::to_string(outcome.asyncMilliseconds) + " ms",
                  outcome.asyncWasEmpty && outcome.asyncReady);
    report.Expect("values followed the machine: " + std::to_string(last.powerSignals) +
                      " signals of power, " + std::to_string(last.fanSignals) + " of fans, " +
                      std::to_string(last.dataSignals) + " with data",
                  outcome.followed);
    report.Expect("a service went away, its proxy was not ready", outcome.wentAway);
    report.Expect("a direct call to it failed meanwhile", outcome.failedMeanwhile);
    report.Expect("it came back, and the values with it", outcome.cameBack && last.fansReady);
    report.Expect("its signals arrive again", outcome.followedAgain);
    report.Expect("a memory module was unplugged: its live signal was lost", outcome.unplugged);
    report.Expect("it was plugged again: live again", outcome.plugged);
    report.Expect("a service crashed without a word: its live object was lost", outcome.crashed);
    report.Expect("it returned: live again, read anew", outcome.returned);
}

} // namespace demo
