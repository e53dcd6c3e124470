// How a program tests its code against a private bus and a scripted service.

#include "rack_monitor.hpp"

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace bmcbus::testing;
using ::testing::Contains;
using ::testing::ElementsAre;

namespace
{

class RackMonitorTest : public ::testing::Test
{
  protected:
    static constexpr const char* path = "/com/example/rack/sensor0";

    PrivateBus bus;
    FakeService sensor{"com.example.Rack",
                       path,
                       {"com.example.rack.Sensor"},
                       {{"reading", 20.0}, {"unit", "degrees C"}, {"upperLimit", 25.0}}};
    std::vector<std::string> lines;

    RackMonitor::Report Keep()
    {
        return [this](const std::string& line) { lines.push_back(line); };
    }
};

TEST_F(RackMonitorTest, FollowsTheReading)
{
    RackMonitor monitor(path, "com.example.Rack", Keep());
    ASSERT_TRUE(monitor.Ready());
    EXPECT_EQ(monitor.Reading(), 20.0);

    sensor->Set("reading", 21.5);
    EXPECT_TRUE(Dispatch([&] { return monitor.Reading() == 21.5; }));
    EXPECT_THAT(lines, ElementsAre("reading 21.5 degrees C"));
}

TEST_F(RackMonitorTest, ReportsAlarms)
{
    RackMonitor monitor(path, "com.example.Rack", Keep());
    sensor->Emit("limitExceeded", 26.0, 25.0);
    EXPECT_TRUE(Dispatch([&] { return monitor.Alarms() == 1; }));
    EXPECT_THAT(lines, ElementsAre("limit exceeded: 26 > 25"));
}

TEST_F(RackMonitorTest, CallsAndWrites)
{
    RackMonitor monitor(path, "com.example.Rack", Keep());
    sensor->OnCall("calibrate", [](const Call& call)
                   { return std::vector<Value>{call.arguments[0].Get<double>() - 20.0}; });
    EXPECT_TRUE(monitor.Calibrate(22.5));
    EXPECT_THAT(lines, Contains("calibrated, offset 2.500000"));
    EXPECT_TRUE(monitor.SetUpperLimit(30.0));
    EXPECT_EQ(sensor->Get("upperLimit"), Value(30.0));
}

TEST_F(RackMonitorTest, FailsWhenTheSensorDoes)
{
    RackMonitor monitor(path, "com.example.Rack", Keep());
    sensor.On("calibrate").ReplyError("com.example.Error.Broken");
    EXPECT_FALSE(monitor.Calibrate(22.5));
    sensor->OnWrite("upperLimit", [](const Value&)
                    { throw CallError("com.example.Error.Refused", "out of range"); });
    EXPECT_FALSE(monitor.SetUpperLimit(1000.0));

    sensor.Manage(path); // the loss is announced from where the monitor listens
    sensor->RemoveInterface("com.example.rack.Sensor");
    EXPECT_TRUE(Dispatch([&] { return !monitor.Ready(); }));
    EXPECT_THAT(lines, ElementsAre("sensor gone"));
}

} // namespace
