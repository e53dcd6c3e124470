#pragma once

// A private bus with a service that has the fans, a stranger on a connection of its own, and what
// the callbacks of a live object saw.

#include "log_recorder.hpp"
#include "run_until.hpp"

#include <bmcbus/live.hpp>
#include <bmcbus/testing.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kit = bmcbus::testing;

using bmcbus::LiveState;
using kit::Value;

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using FanSignal = ClientCache::FanReporting::notifyFanReportingData;
using FanMap = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;
using Lines = std::vector<std::string>;

inline const std::string fanInterface = "com.tamm.bmc.Thermal.FanReporting";
inline const std::string fanService = "com.example.Fans";
inline const std::string fanPath = "/com/example/fans";
inline const FanMap twoFans = {{"fan1", {30, 31, 32, true}}, {"fan2", {40, 41, 42, false}}};

inline void PrintTo(LiveState state, std::ostream* out)
{
    *out << Name(state);
}

class LiveTest : public testing::Test
{
  protected:
    explicit LiveTest(const kit::BusLimits& limits = kit::BusLimits::Roomy()) : bus(limits)
    {
        EXPECT_GE(sd_bus_default_system(&connection), 0);
    }
    ~LiveTest() override { sd_bus_flush_close_unref(connection); }

    void StartFans()
    {
        fans = std::make_unique<kit::FakeService>(fanService, fanPath,
                                                  std::vector<std::string>{fanInterface});
        (*fans)->SetQuietly({{"fanCount", uint8_t{2}}, {"fanPWMData", twoFans}});
    }

    // A handle whose callbacks write down what they see: "Reading", "fanCount=4".
    bmcbus::Live<Fans> Follow(const std::string& service = fanService,
                              const std::string& path = fanPath)
    {
        return {connection,
                path,
                {.service = service,
                 .on_change =
                     [this](Fans& now, const bmcbus::Changes& what)
                 {
                     for (const std::string_view name : what)
                     {
                         bool set = false;
                         uint8_t count = 0;
                         now.Get_fanCount(set, count);
                         seen.push_back(name != "fanCount" ? std::string(name)
                                        : set              ? "fanCount=" + std::to_string(count)
                                                           : "fanCount unset");
                     }
                 },
                 .on_state = [this](Fans&, LiveState state) { seen.emplace_back(Name(state)); }}};
    }

    bool Until(const std::function<bool()>& condition)
    {
        return kit::Dispatch(connection, condition);
    }
    bool Becomes(const bmcbus::Live<Fans>& live, LiveState state)
    {
        return Until([&] { return live.State() == state; });
    }
    // One that is live, and what its callbacks saw until then is forgotten.
    bmcbus::Live<Fans> Running()
    {
        StartFans();
        bmcbus::Live<Fans> live = Follow();
        EXPECT_TRUE(Becomes(live, LiveState::Live));
        seen.clear();
        return live;
    }
    // Handles everything that was sent before, and what follows from it.
    void Deliver()
    {
        for (int round = 0; round < 4; ++round)
        {
            EXPECT_TRUE(kit::DispatchPending(connection));
        }
    }
    Lines Seen() { return std::exchange(seen, {}); }

    kit::PrivateBus bus;
    sd_bus* connection = nullptr;
    std::unique_ptr<kit::FakeService> fans;
    Lines seen;
};
