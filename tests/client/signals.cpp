// What the three signals of a cached proxy do to its copy, its state and its log.

#include "fixture.hpp"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class Signals : public ClientTest
{
  protected:
    Signals()
    {
        fan.AddCallback(Count, &calls);
        test::ClearLog();
    }

    // Whether the object still has a service: without one the first read asks for it.
    bool HasService()
    {
        test::ClearLog();
        mapper.On("GetObject").ReplyError("com.example.Error.Broken");
        fans.On("GetAll").ReplyError("com.example.Error.Broken");
        fan.InitialGetAll();
        const bool asked = test::CountLog(9, 127, "InitialGetAll", "no service set") > 0;
        test::ClearLog();
        return !asked;
    }

    // A signal that cannot be decoded: one line, and nothing else happens.
    void ExpectRefused(const std::string& function, const std::string& what)
    {
        EXPECT_THAT(LoggedErrors(), ElementsAre(testing::StartsWith(Exception(function, what))));
        EXPECT_EQ(Logged().back(), LoggedErrors().back()) << "nothing follows";
        EXPECT_EQ(calls, 0U);
        EXPECT_EQ(fan.SignalCount(), 0U);
        EXPECT_EQ(fan.Get_fanCount(), 2);
        EXPECT_TRUE(fan.Ready());
        test::ClearLog();
    }

    size_t calls = 0;
    Fan fan{fanPath, fanService};
};

TEST_F(Signals, PropertiesChanged)
{
    Change({{"fanPWMData", FanMap()}, {"fanCount", uint8_t{0}}});
    EXPECT_EQ(fan.Get_fanCount(), 0);
    EXPECT_EQ(fan.Get_fanPWMData(), FanMap()) << "replaced, not merged";
    EXPECT_EQ(fan.SignalCount(), 1U);
    EXPECT_EQ(calls, 1U);
    const char* const function = "ObjectCallbackChanged";
    EXPECT_THAT(
        Logged(),
        ElementsAre(Trace(function, "enter FanReporting property changed"),
                    Trace(function, "interface_name=[%s]", "interface_name=[" + fanInterface + "]"),
                    Trace(function, "property_name=[%s]", "property_name=[fanCount]"),
                    Trace("SetByNameLocked", "property_name=[%s]", "property_name=[fanCount]"),
                    Trace(function, "property_name=[%s]", "property_name=[fanPWMData]"),
                    Trace("SetByNameLocked", "property_name=[%s]", "property_name=[fanPWMData]"),
                    Trace(function, "leave FanReporting")));
}

TEST_F(Signals, PropertiesChangedOfAnotherInterface)
{
    Change({{"fanCount", uint8_t{9}}, {"other", std::vector<std::string>{"one", "two"}}},
           fanInterface + "s");
    EXPECT_EQ(fan.Get_fanCount(), 2);
    EXPECT_EQ(fan.SignalCount(), 1U);
    EXPECT_EQ(calls, 1U);
    EXPECT_THAT(Logged(),
                ElementsAre(Trace("ObjectCallbackChanged", "enter FanReporting property changed"),
                            Trace("ObjectCallbackChanged", "interface_name=[%s]",
                                  "interface_name=[" + fanInterface + "s]"),
                            Trace("ObjectCallbackChanged", "leave FanReporting")));
    // Readiness is not touched either way.
    Remove({fanInterface});
    Change({{"fanCount", uint8_t{9}}}, "com.example.Other");
    EXPECT_FALSE(fan.Ready());
    EXPECT_EQ(calls, 3U);
}

TEST_F(Signals, PropertiesChangedWithoutProperties)
{
    Remove({fanInterface});
    fans->EmitPropertiesChanged(fanInterface, {}, {"fanCount"});
    Deliver();
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(calls, 2U);
    EXPECT_EQ(fan.Get_fanCount(), 2) << "invalidated properties keep their values";
    // The list of invalidated properties is not read, so it may be missing.
    Emit("org.freedesktop.DBus.Properties", "PropertiesChanged",
         {fanInterface, kit::AsPropertyMap({{"fanCount", uint8_t{3}}})});
    EXPECT_EQ(fan.Get_fanCount(), 3);
    EXPECT_EQ(calls, 3U);
}

TEST_F(Signals, ValuesThatDoNotFitAreSkipped)
{
    Change({{"fanCount", 70000},
            {"fanCoun", uint8_t{1}},
            {"fanPWMData", FanMap()},
            {"fanCount ", uint8_t{1}}});
    EXPECT_EQ(fan.Get_fanCount(), 2);
    EXPECT_EQ(fan.Get_fanPWMData(), FanMap());
    EXPECT_EQ(calls, 1U);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Error("SetByNameLocked", "invalid property_name=[%s]",
                                                  "invalid property_name=[fanCoun]"),
                                            Error("SetLocked_fanCount", "invalid type in variant"),
                                            Error("SetByNameLocked", "invalid property_name=[%s]",
                                                  "invalid property_name=[fanCount ]")));
    // Also in containers and variants in variants.
    Change({{"fanCount", Value::Variant(uint8_t{5})},
            {"fanPWMData", std::map<std::string, Value>{{"a", 1}, {"b", "two"}}}});
    EXPECT_EQ(fan.Get_fanCount(), 2);
    EXPECT_EQ(calls, 2U);
}

TEST_F(Signals, TheFirstOfEqualNamesCounts)
{
    Change({{"fanCount", uint8_t{5}}, {"fanCount", "wrong"}, {"fanCount", uint8_t{6}}});
    EXPECT_EQ(fan.Get_fanCount(), 5);
    Add({{fanInterface, {{"fanCount", uint8_t{7}}}}, {fanInterface, {{"fanCount", uint8_t{8}}}}});
    EXPECT_EQ(fan.Get_fanCount(), 7);
    EXPECT_THAT(LoggedErrors(), IsEmpty());
    EXPECT_EQ(test::LogOf("%s.%d.%s: interface_name=[%s]").size(), 2U);
}

TEST_F(Signals, UndecodablePropertiesChanged)
{
    const std::string properties = "org.freedesktop.DBus.Properties";
    const std::string function = "ObjectCallbackChanged";
    const std::string text = "sd_bus_message_read_basic string: System.Error.ENXIO";
    const std::string map = "sd_bus_message_enter_container emplace_container: System.Error.ENXIO";
    Emit(properties, "PropertiesChanged", {});
    ExpectRefused(function, text);
    Emit(properties, "PropertiesChanged", {uint8_t{1}});
    ExpectRefused(function, text);
    Emit(properties, "PropertiesChanged", {fanInterface});
    ExpectRefused(function, map);
    Emit(properties, "PropertiesChanged", {fanInterface, "text"});
    ExpectRefused(function, map);
    Emit(properties, "PropertiesChanged",
         {fanInterface, std::map<std::string, uint8_t>{{"fanCount", 1}}});
    ExpectRefused(function, map);
    Emit(properties, "PropertiesChanged", {"com.example.Other", "text"});
    ExpectRefused(function, map);

    Change({{"fanCount", uint8_t{3}}});
    EXPECT_EQ(fan.Get_fanCount(), 3) << "the next signal is read afresh";
    EXPECT_EQ(calls, 1U);
}

TEST_F(Signals, InterfacesAdded)
{
    Remove({fanInterface});
    ASSERT_FALSE(fan.Ready());
    test::ClearLog();
    Add({{"org.example.Z", {{"fanCount", uint8_t{1}}}},
         {fanInterface, {{"fanPWMData", FanMap()}, {"fanCount", uint8_t{9}}}},
         {"com.example.A", {}}});
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 9);
    EXPECT_EQ(fan.SignalCount(), 2U);
    EXPECT_EQ(calls, 2U);
    const char* const function = "ObjectCallbackAdded";
    EXPECT_THAT(
        Logged(),
        ElementsAre(
            Trace(function, "enter FanReporting interface added"),
            Trace(function, "object_path_string=[%s]", "object_path_string=[" + fanPath + "]"),
            Trace(function, "interface_name=[%s]", "interface_name=[com.example.A]"),
            Trace(function, "interface_name=[%s]", "interface_name=[" + fanInterface + "]"),
            Trace(function, "property_name=[%s]", "property_name=[fanCount]"),
            Trace("SetByNameLocked", "property_name=[%s]", "property_name=[fanCount]"),
            Trace(function, "property_name=[%s]", "property_name=[fanPWMData]"),
            Trace("SetByNameLocked", "property_name=[%s]", "property_name=[fanPWMData]"),
            Trace(function, "interface_name=[%s]", "interface_name=[org.example.Z]"),
            Trace(function, "leave FanReporting")));
    EXPECT_FALSE(HasService()) << "a signal does not tell who owns the object";
}

TEST_F(Signals, InterfacesAddedWithoutTheInterface)
{
    Remove({fanInterface});
    Add({{"com.example.A", {{"fanCount", uint8_t{1}}}}});
    Add({});
    EXPECT_FALSE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 2);
    EXPECT_EQ(calls, 3U);
    Add({{fanInterface, {}}});
    EXPECT_TRUE(fan.Ready()) << "also with an empty map";
    EXPECT_EQ(fan.Get_fanCount(), 2);
}

TEST_F(Signals, ThePathInTheMessageIsOnlyLogged)
{
    const std::string manager = "org.freedesktop.DBus.ObjectManager";
    const std::map<std::string, std::map<std::string, Value>> added = {
        {fanInterface, {{"fanCount", uint8_t{4}}}}};
    Emit(manager, "InterfacesAdded", {kit::Path{"/other"}, added});
    EXPECT_EQ(fan.Get_fanCount(), 4);
    EXPECT_EQ(test::CountLog(9, 127, "ObjectCallbackAdded", "object_path_string=[/other]"), 1U);
    Emit(manager, "InterfacesRemoved", {kit::Path{"/other"}, std::vector{fanInterface}});
    EXPECT_FALSE(fan.Ready());
    // What is emitted on another path is not for this object, whatever it says.
    fans.EmitRaw("/other", manager, "InterfacesAdded", {kit::Path{fanPath}, added});
    Deliver();
    EXPECT_FALSE(fan.Ready());
    EXPECT_EQ(fan.SignalCount(), 2U);
    // The interface that the signal is of does not matter.
    Emit("com.example.Any", "InterfacesAdded", {kit::Path{fanPath}, added});
    EXPECT_TRUE(fan.Ready());
}

TEST_F(Signals, UndecodableInterfacesAdded)
{
    const std::string manager = "org.freedesktop.DBus.ObjectManager";
    const std::string function = "ObjectCallbackAdded";
    Emit(manager, "InterfacesAdded", {});
    ExpectRefused(function, "sd_bus_message_read_basic string: ");
    Emit(manager, "InterfacesAdded", {fanPath, 1});
    ExpectRefused(function, "sd_bus_message_read_basic string: ");
    Emit(manager, "InterfacesAdded", {kit::Path{fanPath}});
    ExpectRefused(function, "sd_bus_message_enter_container emplace_container: ");
    Emit(manager, "InterfacesAdded",
         {kit::Path{fanPath}, std::map<std::string, std::string>{{fanInterface, "x"}}});
    ExpectRefused(function, "sd_bus_message_enter_container emplace_container: ");
}

TEST_F(Signals, InterfacesRemoved)
{
    Remove({"com.example.A", fanInterface, "com.example.B"});
    EXPECT_FALSE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 2) << "the last values remain";
    bool is_set = false;
    FanMap map;
    fan.Get_fanPWMData(is_set, map);
    EXPECT_TRUE(is_set);
    EXPECT_EQ(map, twoFans);
    EXPECT_EQ(fan.SignalCount(), 1U);
    EXPECT_EQ(calls, 1U);
    const char* const function = "ObjectCallbackRemoved";
    EXPECT_THAT(Logged(), ElementsAre(Trace(function, "enter FanReporting interface removed"),
                                      Trace(function, "object_path_string=[%s]",
                                            "object_path_string=[" + fanPath + "]"),
                                      Trace(function, "i=[%s]", "i=[com.example.A]"),
                                      Trace(function, "i=[%s]", "i=[" + fanInterface + "]"),
                                      Trace(function, "service cleared"),
                                      Trace(function, "i=[%s]", "i=[com.example.B]"),
                                      Trace(function, "leave FanReporting")));
    EXPECT_FALSE(HasService());
}

TEST_F(Signals, InterfacesRemovedOfOthers)
{
    Remove({"com.example.A", fanInterface + ".Sub", ""});
    Remove({});
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(calls, 2U);
    EXPECT_TRUE(HasService());
}

TEST_F(Signals, UndecodableInterfacesRemoved)
{
    const std::string manager = "org.freedesktop.DBus.ObjectManager";
    Emit(manager, "InterfacesRemoved", {});
    ExpectRefused("ObjectCallbackRemoved", "sd_bus_message_read_basic string: ");
    Emit(manager, "InterfacesRemoved", {kit::Path{fanPath}});
    ExpectRefused("ObjectCallbackRemoved",
                  "sd_bus_message_enter_container emplace_back_container: ");
    Emit(manager, "InterfacesRemoved", {kit::Path{fanPath}, std::vector<kit::Path>{{"/a"}}});
    ExpectRefused("ObjectCallbackRemoved",
                  "sd_bus_message_enter_container emplace_back_container: ");
}

TEST_F(Signals, ReadAgainWhenTheServiceComesBack)
{
    Remove({fanInterface});
    fans->SetQuietly({{"fanCount", 12}});
    fan.InitialGetAll();
    EXPECT_TRUE(fan.Ready());
    EXPECT_EQ(fan.Get_fanCount(), 12);
    EXPECT_TRUE(HasService());
}

} // namespace
