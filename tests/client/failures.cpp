// Buses that refuse, break or are not there, and text that may not travel.

#include "fixture.hpp"
#include "no_bus.hpp"

#include <com/tamm/bmc/debug/dataorigin/client_cache.hpp>

#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

using namespace std::string_literals;

const std::string dead = "System.Error.ENOTCONN: Transport endpoint is not connected";

class StockLimits : public ClientTest
{
  protected:
    StockLimits() : ClientTest(kit::BusLimits::Stock()) {}
};

// 512 match rules are three for each of 170 objects and two more.
TEST_F(StockLimits, RefusedRulesHurtNobodyElse)
{
    for (size_t i = 0; i < 170; ++i)
    {
        Fan::Create(fanPath, fanService);
    }
    EXPECT_THAT(LoggedErrors(), IsEmpty());
    test::ClearLog();
    Fan* const refused = Fan::Create(fanPath, fanService);
    EXPECT_FALSE(refused->Ready());
    EXPECT_THAT(Logged(),
                ElementsAre(Trace("FanReporting", "enter FanReporting"),
                            Trace("FanReporting", "set up callbacks and matches"),
                            Exception("FanReporting",
                                      "sd_bus_match: org.freedesktop.DBus.Error.LimitsExceeded: "
                                      "No buffer space available"),
                            Trace("FanReporting", "leave FanReporting")));
    test::ClearLog();
    FanSignal* const deaf = FanSignal::Create(fanPath);
    EXPECT_THAT(Logged(), IsEmpty());

    fans->Set("fanCount", 7);
    fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    Deliver();
    EXPECT_EQ(deaf->SignalCount(), 0U);
    for (size_t i = 0; i < 170; ++i)
    {
        EXPECT_EQ(Fan::active[i]->Get_fanCount(), 7);
    }
    // Room is made for the next one.
    Fan::Release(refused);
    Fan::Release(Fan::active[0]);
    FanSignal hears(fanPath);
    fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    Deliver();
    EXPECT_EQ(hears.SignalCount(), 1U);
}

class Failures : public ClientTest
{
  protected:
    // A dead connection is handed out again as long as someone refers to it.
    void Reconnect()
    {
        sd_bus_flush_close_unref(connection);
        ASSERT_GE(sd_bus_default_system(&connection), 0);
    }
};

TEST_F(Failures, TheDaemonDies)
{
    Fan fan(fanPath, fanService);
    FanEdge edge(fanService, fanPath);
    {
        FanSignal signal(fanPath);
        bus.Kill();
        EXPECT_FALSE(kit::DispatchPending(connection));
        EXPECT_TRUE(fan.Ready());
        EXPECT_EQ(fan.Get_fanCount(), 2);
        test::ClearLog();
        bool ok = true;
        uint8_t count = 5;
        edge.Get_fanCount(ok, count);
        EXPECT_FALSE(ok);
        EXPECT_EQ(count, 5);
        EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("GetLocked_fanCount",
                                                          "sd_bus_get_unique_name: " + dead)));
        test::ClearLog();
        Fan late(fanPath, fanService);
        EXPECT_FALSE(late.Ready());
        EXPECT_THAT(LoggedErrors(),
                    ElementsAre(Exception("FanReporting", "sd_bus_get_unique_name: " + dead)));
        EXPECT_THROW(FanSignal{fanPath}, bmcbus::Error);
    }
    fan.~Fan();
    bus.Restart();
    fans.Start();
    Reconnect();
    new (&fan) Fan(fanPath, fanService);
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(edge.Get_fanCount(), 2);
}

TEST_F(Failures, TheConnectionBreaksDuringACall)
{
    FanEdge edge(fanService, fanPath);
    fans.On("Get").NoReply();
    std::thread killer(
        [&]
        {
            EXPECT_TRUE(fans.WaitForCalls("Get"));
            bus.Kill();
        });
    bool ok = true;
    uint8_t count = 5;
    edge.Get_fanCount(ok, count);
    killer.join();
    EXPECT_FALSE(ok);
    EXPECT_EQ(count, 5);
    EXPECT_THAT(LoggedErrors(),
                ElementsAre(StartsWith(Exception("GetLocked_fanCount", "sd_bus_call: "))));
    bus.Restart();
    fans.Heal();
    fans.Start();
    Reconnect();
    EXPECT_EQ(edge.Get_fanCount(), 2);
}

// One that crashes tells nobody; when it is back, objects made before it went work as they are.
TEST_F(Failures, TheServiceRestarts)
{
    Fan fan(fanPath);
    FanSignal signal(fanPath);
    FanEdge edge("", fanPath);
    fans.Crash();
    Deliver();
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 2);
    bool ok = true;
    uint8_t count = 5;
    test::ClearLog();
    edge.Get_fanCount(ok, count);
    EXPECT_FALSE(ok);
    EXPECT_EQ(count, 5);
    EXPECT_THAT(LoggedErrors(), ElementsAre(StartsWith(Exception(
                                    "GetLocked_fanCount",
                                    "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: "))));

    fans->SetQuietly({{"fanCount", 9}});
    fans.Start();
    Deliver();
    EXPECT_EQ(fan.Get_fanCount(), 2) << "nothing announced it yet";
    edge.Get_fanCount(ok, count);
    EXPECT_TRUE(ok);
    EXPECT_EQ(count, 9);
    fans->EmitInterfacesAdded();
    fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    Deliver();
    EXPECT_EQ(fan.Get_fanCount(), 9);
    EXPECT_EQ(fan.SignalCount(), 1U);
    EXPECT_EQ(signal.Get_fanCount(), 3);
}

TEST_F(Failures, TextThatMayNotTravel)
{
    using Origin = ClientEdge::com::tamm::bmc::debug::dataorigin;
    const std::string interface = "com.tamm.bmc.debug.dataorigin";
    kit::FakeService origin("com.example.Origin", "/origin", {interface});
    Origin edge("com.example.Origin", "/origin");
    const std::string invalid = "org.freedesktop.DBus.Error.InvalidArgs: Invalid argument";
    for (const std::string& text : {"\xff"s, "a\0b"s, "\xed\xa0\x80"s, "\xc0\x80"s})
    {
        test::ClearLog();
        std::string out = "before";
        bool ok = true;
        edge.Call_debugmethod(ok, text, out);
        EXPECT_FALSE(ok);
        EXPECT_EQ(out, "before");
        edge.Set_debugproperty(text);
        edge.SetByName("debugproperty", text);
        edge.SetByName("debugproperty"s + text, "value"s);
        EXPECT_EQ(test::LogOf("EXCEPTION %s.%d.%s: %s").size(), 3U) << test::Describe(test::Log());
        EXPECT_EQ(test::LogOf("%s.%d.%s: invalid property_name=[%s]").size(), 1U);

        for (Fan* fan : {Fan::Create("/p" + text, fanService), Fan::Create(fanPath, text),
                         Fan::Create("/p" + text), Fan::Create("/p" + text, true),
                         Fan::Create(fanPath, text, true)})
        {
            EXPECT_FALSE(fan->Ready());
        }
        FanSignal* const deaf = FanSignal::Create("/p" + text);
        EXPECT_EQ(deaf->Path(), "/p" + text);
        FanEdge unreachable(text, "/p" + text);
        EXPECT_EQ(unreachable.Get_fanCount(), 0);
        FanEdge unfound("", "/p" + text);
        EXPECT_EQ(unfound.Service(), "");
    }
    EXPECT_THAT(origin.Calls(), IsEmpty());
    EXPECT_THAT(mapper.Calls(), IsEmpty());
    // The connection was not dropped.
    Deliver();
    Fan works(fanPath, fanService);
    EXPECT_TRUE(works.Ready());
    // Any other text travels whole.
    edge.Set_debugproperty("\u00e9\u20ac\U0001f600"s);
    EXPECT_EQ(edge.Get_debugproperty(), "\u00e9\u20ac\U0001f600");
}

TEST_F(Failures, PathsThatAreNone)
{
    for (const std::string& path :
         {"fans"s, ""s, "/a//b"s, "/a/"s, "/a'b"s, "/a',member='x"s, fanPath + "\0x"s})
    {
        test::ClearLog();
        Fan fan(path, fanService);
        EXPECT_FALSE(fan.Ready());
        EXPECT_EQ(fan.Path(), path);
        EXPECT_EQ(LoggedErrors().size(), 1U) << path;
        EXPECT_EQ(Logged().back(), Trace("FanReporting", "leave FanReporting"));
        test::ClearLog();
        FanSignal signal(path);
        EXPECT_THAT(Logged(), IsEmpty());
        FanEdge edge(fanService, path);
        bool ok = true;
        int32_t out = 3;
        edge.Call_updateFanPWMData(ok, "fan1", uint8_t{1}, out);
        EXPECT_FALSE(ok);
        EXPECT_EQ(out, 3);
        EXPECT_THAT(LoggedErrors(),
                    ElementsAre(Exception("Call_updateFanPWMData",
                                          "sd_bus_message_new_method_call: "
                                          "org.freedesktop.DBus.Error.InvalidArgs: Invalid "
                                          "argument")));
    }
    EXPECT_THAT(fans.Calls(), IsEmpty());
    Deliver();
}

TEST(WithoutABus, EverythingFailsWithItsLine)
{
    const test::NoBus noBus;
    const std::string missing =
        "sd_bus_default_system: org.freedesktop.DBus.Error.FileNotFound: No such file or directory";
    for (const bool use_async : {false, true})
    {
        test::ClearLog();
        Fan* const fan = Fan::Create(fanPath, use_async);
        EXPECT_FALSE(fan->Ready());
        EXPECT_EQ(Fan::Lookup(fanPath), fan);
        EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("FanReporting", missing)));
        fan->Set_fanCount(7);
        EXPECT_EQ(fan->Get_fanCount(), 7);
        test::ClearLog();
        fan->ServiceIsSet();
        fan->InitialGetAll();
        EXPECT_EQ(test::LogOf("EXCEPTION %s.%d.%s: %s").size(), use_async ? 2U : 1U);
        Fan::Cleanup();
    }
    test::ClearLog();
    FanEdge edge("", fanPath);
    EXPECT_EQ(Logged().back(), Trace("FanReporting", "leave FanReporting"));
    EXPECT_EQ(test::CountLog(9, 127, "FanReporting", "no service found"), 1U);
    FanEdge named(fanService, fanPath);
    bool ok = true;
    FanMap map = twoFans;
    test::ClearLog();
    named.Get_fanPWMData(ok, map);
    EXPECT_FALSE(ok);
    EXPECT_EQ(map, twoFans);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("GetLocked_fanPWMData", missing)));
}

} // namespace
