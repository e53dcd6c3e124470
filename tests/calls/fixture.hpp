#pragma once

// A private bus with fans on it, and a connection of the test's own.

#include "log_recorder.hpp"

#include <bmcbus/request.hpp>
#include <bmcbus/task.hpp>
#include <bmcbus/testing.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace test
{

namespace kit = bmcbus::testing;
using namespace std::chrono_literals;

using bmcbus::CallFailure;
using bmcbus::Request;
using bmcbus::Result;

using Count = std::variant<uint8_t, std::string>;

inline const std::string service = "com.example.Fans";
inline const std::string path = "/com/example/fans";
inline const std::string interface = "com.tamm.bmc.Thermal.FanReporting";

// A connection that nobody else knows.
inline bmcbus::BusRef Connect()
{
    sd_bus* raw = nullptr;
    EXPECT_GE(sd_bus_open_system(&raw), 0);
    return bmcbus::BusRef(raw);
}

class Fans
{
  public:
    Fans() { service_->SetQuietly({{"fanCount", 2}}); }

    kit::PrivateBus bus;

    // Stops the daemon as it stands, and lets it go on.
    void Pause() { SignalDaemon(SIGSTOP); }
    void Resume() { SignalDaemon(SIGCONT); }

  private:
    void SignalDaemon(int number)
    {
        if (daemon == 0)
        {
            const bmcbus::BusRef connection = Connect();
            ucred peer{};
            socklen_t size = sizeof peer;
            EXPECT_EQ(
                getsockopt(sd_bus_get_fd(connection.get()), SOL_SOCKET, SO_PEERCRED, &peer, &size),
                0);
            daemon = peer.pid;
        }
        EXPECT_EQ(kill(daemon, number), 0);
    }

    pid_t daemon = 0;

  public:
    kit::FakeService service_{service, path, {interface}};
};

// updateFanPWMData("Fan1", 70), which answers with an int32.
inline Request Update(sd_bus* on)
{
    return Request(on, service, path, interface, "updateFanPWMData").With("Fan1", uint8_t{70});
}

// What a completion was told, and how often.
struct Told
{
    std::optional<Result<int32_t>> result;
    int times = 0;

    auto Listener()
    {
        return [this](Result<int32_t> given)
        {
            result = std::move(given);
            ++times;
        };
    }
    bool Once() const { return times == 1; }
    CallFailure Kind() const
    {
        EXPECT_TRUE(result.has_value() && !result->has_value());
        return result && !*result ? result->error().kind : CallFailure::Remote;
    }
    std::string Name() const { return result && !*result ? result->error().name : ""; }
};

inline bool EachOnce(const std::vector<Told>& told)
{
    return std::all_of(told.begin(), told.end(), [](const Told& each) { return each.Once(); });
}

} // namespace test
