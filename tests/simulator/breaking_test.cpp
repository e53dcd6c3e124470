// The ways to break the machine by hand.

#include "fixture.hpp"

#include <gmock/gmock.h>

namespace test
{
namespace
{

TEST_F(SimulatorTest, AnswersCanBeBroken)
{
    const auto count = [&] { return Read(thermal, chassisFans, fanReporting, "fanCount"); };
    Control("AnswerError", {thermal, "Get", "com.example.Broken"});
    EXPECT_EQ(count(), "com.example.Broken");
    for (const char* none : {"", "not an error name"})
    {
        const auto refused = Control("AnswerError", {thermal, "Get", none});
        EXPECT_EQ(refused.error, "org.freedesktop.DBus.Error.InvalidArgs");
        EXPECT_EQ(refused.reason, "no error name: \"" + std::string(none) + "\"");
    }
    EXPECT_EQ(count(), "com.example.Broken");
    Control("AnswerText", {thermal, "Get", "seven"});
    EXPECT_EQ(count(), "v s \"seven\"");
    Control("AnswerLate", {thermal, "Get", 1U});
    EXPECT_EQ(count(), "v y 6");
    Control("AnswerNothing", {thermal, "Get"});
    EXPECT_EQ(client
                  .Call(thermal, chassisFans, "org.freedesktop.DBus.Properties", "Get",
                        {fanReporting, "fanCount"}, 1000)
                  .error,
              "org.freedesktop.DBus.Error.Timeout");
    Control("AnswerAll", {thermal});
    EXPECT_EQ(count(), "v y 6");
    EXPECT_EQ(Control("AnswerAll", {"com.example.Unknown"}).error,
              "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(SimulatorTest, LossesCanBeAnnounced)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',path='/com/tamm/bmc/thermal'", signals);
    Control("AnnounceRemoved", {Path{chassisFans}, std::vector<std::string>{fanReporting}});
    Control("AnnounceAdded", {Path{chassisFans}});
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 2; }));
    EXPECT_THAT(signals[0], ::testing::HasSubstr(" InterfacesRemoved "));
    EXPECT_THAT(signals[1], ::testing::HasSubstr("\"fanCount\" y 6"));
    EXPECT_EQ(Control("AnnounceAdded", {Path{"/nowhere"}}).error,
              "org.freedesktop.DBus.Error.InvalidArgs");
}

class OwnManagers : public SimulatorTest
{
  protected:
    OwnManagers() : SimulatorTest({"--period", "0", "--own-managers"}) {}
};

TEST_F(OwnManagers, AnnounceObjectsFromTheirPaths)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',interface='org.freedesktop.DBus.ObjectManager'", signals);
    Control("AnnounceAdded", {Path{chassisFans}});
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return !signals.empty(); }));
    EXPECT_THAT(signals, ::testing::ElementsAre(::testing::StartsWith(std::string(chassisFans) +
                                                                      " InterfacesAdded ")));
}

TEST_F(SimulatorTest, AMemoryModuleIsUnpluggedAndPlugged)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',arg0path='/com/tamm/bmc/memory/dimm/A1'", signals);
    EXPECT_EQ(Control("UnplugDimm", {"A1"}).error, "");
    EXPECT_EQ(Control("UnplugDimm", {"A1"}).reason,
              "There is no memory module to unplug from slot A1.");
    Control("Step");
    EXPECT_THAT(Read("com.tamm.bmc.Power", "/com/tamm/bmc/power/system",
                     "com.tamm.bmc.power.PowerReporting", "MEMCurPwr"),
                ::testing::StartsWith("v aq 8 0 "));
    EXPECT_EQ(Control("PlugDimm", {"A1"}).error, "");
    EXPECT_EQ(Control("PlugDimm", {"C9"}).reason,
              "There is no memory module to plug into slot C9.");
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 2; }));
    const std::string from = "/com/tamm/bmc/memory Interfaces";
    EXPECT_THAT(signals, ::testing::ElementsAre(::testing::StartsWith(from + "Removed "),
                                                ::testing::StartsWith(from + "Added ")));
}

TEST_F(SimulatorTest, AServiceCanCrash)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',member='NameOwnerChanged',arg0='com.tamm.bmc.Thermal'", signals);
    Control("CrashService", {thermal});
    for (const auto& refused :
         {Control("AnnounceAdded", {Path{chassisFans}}),
          Control("AnnounceRemoved", {Path{chassisFans}, std::vector<std::string>{fanReporting}})})
    {
        EXPECT_EQ(refused.error, "org.freedesktop.DBus.Error.Failed");
        EXPECT_EQ(refused.reason, "The service com.tamm.bmc.Thermal is down.");
    }
    Control("StartService", {thermal});
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 2; }));
    EXPECT_EQ(Read(thermal, chassisFans, fanReporting, "fanCount"), "v y 6");
}

} // namespace
} // namespace test
