// How a cached proxy finds its service and reads its first values.

#include "fixture.hpp"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const std::string otherService = "com.example.Another";

class FirstRead : public ClientTest
{
  protected:
    static void ExpectRead(Fan& fan)
    {
        bool is_set = false;
        uint8_t count = 0;
        FanMap map;
        fan.Get(count, map);
        EXPECT_EQ(count, 2);
        EXPECT_EQ(map, twoFans);
        fan.Get_fanPWMData(is_set, map);
        EXPECT_TRUE(is_set);
        EXPECT_TRUE(fan.Ready());
        EXPECT_EQ(fan.SignalCount(), 0U);
    }

    static void ExpectUnread(Fan& fan)
    {
        bool is_set = true;
        uint8_t count = 1;
        fan.Get_fanCount(is_set, count);
        EXPECT_FALSE(is_set);
        EXPECT_EQ(count, 0);
        EXPECT_EQ(fan.Get_fanPWMData(), FanMap());
        EXPECT_FALSE(fan.Ready());
        EXPECT_EQ(fan.SignalCount(), 0U);
    }

    void AwaitReady(Fan& fan)
    {
        EXPECT_TRUE(kit::Dispatch(connection, [&] { return fan.Ready(); }));
    }
};

TEST_F(FirstRead, BlockingFromAGivenService)
{
    size_t calls = 0;
    Fan fan(fanPath, fanService, Count, &calls);
    ExpectRead(fan);
    EXPECT_THAT(Logged(),
                ElementsAre(Trace("FanReporting", "enter FanReporting"),
                            Trace("FanReporting", "set up callbacks and matches"),
                            Trace("FanReporting", "get current values"),
                            Trace("InitialGetAll", "not using datacache"),
                            Trace("ServiceIsSet", "enter"),
                            Trace("ServiceIsSet", "do not use async"),
                            Trace("SetByName", "property_name=[%s]", "property_name=[fanCount]"),
                            Trace("SetByName", "property_name=[%s]", "property_name=[fanPWMData]"),
                            Trace("FanReporting", "leave FanReporting")));
    EXPECT_THAT(mapper.Calls(), IsEmpty());
    ASSERT_EQ(fans.Calls().size(), 1U);
    EXPECT_EQ(fans.Calls()[0].member, "GetAll");
    EXPECT_EQ(fans.Calls()[0].interface, "org.freedesktop.DBus.Properties");
    EXPECT_EQ(fans.Calls()[0].path, fanPath);
    EXPECT_EQ(fans.Calls()[0].Arguments(), "s \"" + fanInterface + "\"");
    EXPECT_EQ(calls, 0U);
}

TEST_F(FirstRead, BlockingThroughTheMapper)
{
    kit::FakeService another(otherService, fanPath, {fanInterface});
    another->SetQuietly({{"fanCount", 9}});
    Fan fan(fanPath);
    ExpectRead(fan);
    EXPECT_THAT(
        Logged(),
        ElementsAre(
            Trace("FanReporting", "enter FanReporting"),
            Trace("FanReporting", "set up callbacks and matches"),
            Trace("FanReporting", "get current values"),
            Trace("InitialGetAll", "not using datacache"), Trace("InitialGetAll", "no service set"),
            Trace("InitialGetAll", "do not use async"),
            Trace("InitialGetAll", "found service=[%s]", "found service=[" + fanService + "]"),
            Trace("ServiceIsSet", "enter"), Trace("ServiceIsSet", "do not use async"),
            Trace("SetByName", "property_name=[%s]", "property_name=[fanCount]"),
            Trace("SetByName", "property_name=[%s]", "property_name=[fanPWMData]"),
            Trace("FanReporting", "leave FanReporting")));
    ASSERT_EQ(mapper.Calls().size(), 1U);
    EXPECT_EQ(mapper.Calls()[0].Arguments(), "sas \"" + fanPath + "\" 1 \"" + fanInterface + "\"");

    // Of several services the one whose name comes first has the object.
    mapper.Add(fanPath, otherService, {fanInterface});
    EXPECT_EQ(Fan(fanPath).Get_fanCount(), 9);
}

TEST_F(FirstRead, BlockingWithoutAnOwner)
{
    mapper.Remove(fanService);
    Fan fan(fanPath);
    ExpectUnread(fan);
    EXPECT_THAT(Logged(), ElementsAre(Trace("FanReporting", "enter FanReporting"),
                                      Trace("FanReporting", "set up callbacks and matches"),
                                      Trace("FanReporting", "get current values"),
                                      Trace("InitialGetAll", "not using datacache"),
                                      Trace("InitialGetAll", "no service set"),
                                      Trace("InitialGetAll", "do not use async"),
                                      Trace("InitialGetAll", "no service yet"),
                                      Trace("FanReporting", "leave FanReporting")));
    EXPECT_THAT(fans.Calls(), IsEmpty());

    // Nothing is asked again, but values arrive by signal.
    fans->Set("fanCount", 5);
    Deliver();
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 5);
    EXPECT_EQ(mapper.Calls().size(), 1U);
}

TEST_F(FirstRead, AsynchronousFromAGivenService)
{
    size_t calls = 0;
    Fan fan(fanPath, fanService, Count, &calls, true);
    ExpectUnread(fan);
    AwaitReady(fan);
    ExpectRead(fan);
    EXPECT_THAT(
        Logged(),
        ElementsAre(Trace("FanReporting", "enter FanReporting"),
                    Trace("FanReporting", "set up callbacks and matches"),
                    Trace("FanReporting", "get current values"),
                    Trace("InitialGetAll", "not using datacache"), Trace("ServiceIsSet", "enter"),
                    Trace("ServiceIsSet", "use async"), Trace("FanReporting", "leave FanReporting"),
                    Trace("GetPropertiesAsyncCallback", "success=%d", "success=1"),
                    Trace("GetPropertiesAsyncCallback", "pname=[%s]", "pname=[fanCount]"),
                    Trace("SetByName", "property_name=[%s]", "property_name=[fanCount]"),
                    Trace("GetPropertiesAsyncCallback", "pname=[%s]", "pname=[fanPWMData]"),
                    Trace("SetByName", "property_name=[%s]", "property_name=[fanPWMData]")));
    EXPECT_THAT(mapper.Calls(), IsEmpty());
    EXPECT_EQ(calls, 0U);
}

TEST_F(FirstRead, AsynchronousThroughTheMapper)
{
    Fan fan(fanPath, true);
    ExpectUnread(fan);
    AwaitReady(fan);
    ExpectRead(fan);
    const Lines lines = Logged();
    ASSERT_GE(lines.size(), 12U);
    EXPECT_THAT(
        Lines(lines.begin() + 3, lines.begin() + 12),
        ElementsAre(
            Trace("InitialGetAll", "not using datacache"), Trace("InitialGetAll", "no service set"),
            Trace("InitialGetAll", "use async"), Trace("FanReporting", "leave FanReporting"),
            Trace("GetServiceAsyncCallback", "success=%d", "success=1"),
            Trace("GetServiceAsyncCallback", "service=[%s]", "service=[" + fanService + "]"),
            Trace("ServiceIsSet", "enter"), Trace("ServiceIsSet", "use async"),
            Trace("GetPropertiesAsyncCallback", "success=%d", "success=1")));
}

TEST_F(FirstRead, AsynchronousFailures)
{
    const auto endsWith = [&](const auto& line) {
        return kit::Dispatch(connection,
                             [&] { return !Logged().empty() && Logged().back() == line; });
    };
    mapper.On("GetObject").Once().ReplyError("com.example.Error.Broken");
    Fan unowned(fanPath, true);
    EXPECT_TRUE(endsWith(Trace("GetServiceAsyncCallback", "success=%d", "success=0")));
    ExpectUnread(unowned);

    fans.On("GetAll").Once().ReplyError("com.example.Error.Broken");
    Fan refused(fanPath, fanService, true);
    EXPECT_TRUE(endsWith(Trace("GetPropertiesAsyncCallback", "success=%d", "success=0")));
    ExpectUnread(refused);

    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({})});
    Fan empty(fanPath, fanService, true);
    EXPECT_TRUE(endsWith(Trace("GetPropertiesAsyncCallback", "empty")));
    ExpectUnread(empty);

    fans.On("GetAll").Once().Reply({"no map"});
    Fan undecodable(fanPath, fanService, true);
    EXPECT_TRUE(endsWith(Trace("GetPropertiesAsyncCallback", "success=%d", "success=0")));
    ExpectUnread(undecodable);
}

TEST_F(FirstRead, TimesOut)
{
    // Also for the match rules, which are answered, so not too short for a machine under load.
    ASSERT_GE(sd_bus_set_method_call_timeout(connection, 1'000'000), 0);
    mapper.On("GetObject").NoReply();
    fans.On("GetAll").NoReply();
    Fan lookup(fanPath, true);
    Fan read(fanPath, fanService, true);
    EXPECT_TRUE(kit::Dispatch(
        connection,
        []
        {
            return test::CountLog(9, 127, "GetServiceAsyncCallback", "success=0") == 1 &&
                   test::CountLog(9, 127, "GetPropertiesAsyncCallback", "success=0") == 1;
        }));
    Fan blocking(fanPath);
    EXPECT_EQ(test::CountLog(9, 127, "InitialGetAll", "no service yet"), 1U);
    test::ClearLog();
    Fan reading(fanPath, fanService);
    EXPECT_THAT(
        LoggedErrors(),
        ElementsAre(Exception("ServiceIsSet", "sd_bus_call: org.freedesktop.DBus.Error.Timeout: "
                                              "Connection timed out")));
    for (Fan* fan : {&lookup, &read, &blocking, &reading})
    {
        ExpectUnread(*fan);
    }
}

TEST_F(FirstRead, BlockingFailures)
{
    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({})});
    Fan empty(fanPath, fanService);
    ExpectUnread(empty);
    EXPECT_THAT(LoggedErrors(), IsEmpty());

    const auto fails = [&](const std::string& service, const std::string& what)
    {
        test::ClearLog();
        Fan fan(fanPath, service);
        ExpectUnread(fan);
        EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("ServiceIsSet", what)));
        EXPECT_EQ(Logged().back(), Trace("FanReporting", "leave FanReporting"));
        fan.Set_fanCount(3);
        EXPECT_EQ(fan.Get_fanCount(), 3);
    };
    fans.On("GetAll").Once().ReplyError("com.example.Error.Broken", "so there");
    fails(fanService, "sd_bus_call: com.example.Error.Broken: so there");
    fans.On("GetAll").Once().Reply({});
    fails(fanService, "sd_bus_message_enter_container emplace_container: System.Error.ENXIO: No "
                      "such device or address");
    fans.On("GetAll").Once().Reply({"text"});
    fails(fanService, "sd_bus_message_enter_container emplace_container: System.Error.ENXIO: No "
                      "such device or address");
    fails("com.example.Nobody", "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: The name "
                                "com.example.Nobody was not provided by any .service files");
    fails("no name", "sd_bus_message_new_method_call: org.freedesktop.DBus.Error.InvalidArgs: "
                     "Invalid argument");
}

TEST_F(FirstRead, SkipsWhatDoesNotFit)
{
    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({{"unknown", 1},
                                                        {"FanCount", uint8_t{1}},
                                                        {"fanPWMData", "text"},
                                                        {"fanCount", uint8_t{7}},
                                                        {"fanCount", uint8_t{8}}})});
    Fan fan(fanPath, fanService);
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 7) << "the first of equal names counts";
    bool is_set = false;
    FanMap map = twoFans;
    fan.Get_fanPWMData(is_set, map);
    EXPECT_TRUE(is_set) << "an unknown type arrives as the first alternative";
    EXPECT_EQ(map, FanMap());
    EXPECT_THAT(LoggedErrors(), ElementsAre(Error("SetByName", "invalid property_name=[%s]",
                                                  "invalid property_name=[FanCount]"),
                                            Error("SetByName", "invalid property_name=[%s]",
                                                  "invalid property_name=[unknown]")));

    test::ClearLog();
    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({{"fanCount", "text"}})});
    Fan wrong(fanPath, fanService, true);
    AwaitReady(wrong);
    EXPECT_EQ(wrong.Get_fanCount(), 0);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Error("Set_fanCount", "invalid type in variant")));
}

// The completions are public; a caller may have values from elsewhere.
TEST_F(FirstRead, CompletionsCalledByHand)
{
    Fan fan(fanPath, fanService);
    test::ClearLog();
    std::string none;
    Fan::GetServiceAsyncCallback(true, none, &fan);
    std::map<std::string, Fan::Variant> values;
    Fan::GetPropertiesAsyncCallback(true, values, &fan);
    values = {{"fanCount", uint8_t{11}}, {"fanPWMData", FanMap()}, {"other", uint8_t{1}}};
    Fan::GetPropertiesAsyncCallback(false, values, &fan);
    EXPECT_EQ(fan.Get_fanCount(), 2);
    Fan::GetPropertiesAsyncCallback(true, values, &fan);
    EXPECT_EQ(fan.Get_fanCount(), 11);
    EXPECT_EQ(fan.Get_fanPWMData(), FanMap());
    const char* const function = "GetPropertiesAsyncCallback";
    EXPECT_THAT(Logged(),
                ElementsAre(Trace("GetServiceAsyncCallback", "success=%d", "success=1"),
                            Trace("GetServiceAsyncCallback", "empty"),
                            Trace(function, "success=%d", "success=1"), Trace(function, "empty"),
                            Trace(function, "success=%d", "success=0"),
                            Trace(function, "success=%d", "success=1"),
                            Trace(function, "pname=[%s]", "pname=[fanCount]"),
                            Trace("SetByName", "property_name=[%s]", "property_name=[fanCount]"),
                            Trace(function, "pname=[%s]", "pname=[fanPWMData]"),
                            Trace("SetByName", "property_name=[%s]", "property_name=[fanPWMData]"),
                            Trace(function, "pname=[%s]", "pname=[other]"),
                            Trace("SetByName", "property_name=[%s]", "property_name=[other]"),
                            Error("SetByName", "invalid property_name=[%s]",
                                  "invalid property_name=[other]")));

    Fan::GetServiceAsyncCallback(true, none = otherService, &fan);
    EXPECT_THAT(LoggedErrors(), testing::SizeIs(2)) << "the new service does not exist";
}

} // namespace
