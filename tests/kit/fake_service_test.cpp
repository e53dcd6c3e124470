// Scripted services as a test sees them over the bus.

#include "client.hpp"

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace bmcbus::testing;
using test::Client;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace
{

constexpr const char* name = "com.example.Fans";
constexpr const char* path = "/com/example/fans";
constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";
constexpr const char* originInterface = "com.tamm.bmc.debug.dataorigin";
constexpr const char* dimmInterface = "com.tamm.bmc.Memory.Dimm";

using FanData = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;

class FakeServiceTest : public ::testing::Test
{
  protected:
    PrivateBus bus;
    FakeService fans{name, path, {fanInterface, originInterface, dimmInterface}, {{"fanCount", 4}}};
    Client client;

    std::string GetAll(const char* interface = fanInterface)
    {
        return client.Properties(name, path, "GetAll", {interface}).Text();
    }
    std::string Get(const char* interface, const char* property)
    {
        return client.Properties(name, path, "Get", {interface, property}).Text();
    }
};

TEST_F(FakeServiceTest, PropertiesAreReadWithDefaultsAndSetValues)
{
    EXPECT_EQ(GetAll(), R"(a{sv} 2 "fanCount" y 4 "fanPWMData" a{s(yyyb)} 0)");
    fans->Set("fanPWMData", FanData{{"fan1", {10, 20, 30, true}}});
    EXPECT_EQ(Get(fanInterface, "fanPWMData"), R"(v a{s(yyyb)} 1 "fan1" 10 20 30 true)");
    EXPECT_EQ(fans->Get("fanPWMData").Get<FanData>().at("fan1"), std::make_tuple(10, 20, 30, true));

    EXPECT_EQ(Get(fanInterface, "none"), "org.freedesktop.DBus.Error.UnknownProperty");
    EXPECT_EQ(GetAll("com.example.None"), "org.freedesktop.DBus.Error.UnknownInterface");
    EXPECT_EQ(client.Properties(name, "/none", "GetAll", {fanInterface}).Text(),
              "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(client.Properties(name, path, "GetAll", {1}).Text(),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(client.Properties(name, path, "GetAll", {""}).values.front().Children().size(), 4U);
}

TEST_F(FakeServiceTest, WritesAreCheckedSeenAndAnnounced)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',member='PropertiesChanged'", signals);
    const auto write = [&](const char* interface, const char* property, const Value& value)
    {
        return client.Properties(name, path, "Set", {interface, property, Value::Variant(value)})
            .Text();
    };
    EXPECT_EQ(write(originInterface, "debugproperty", "new"), "");
    EXPECT_EQ(fans->Get("debugproperty"), Value("new"));

    std::string seen;
    fans->OnWrite("debugproperty",
                  [&](const Value& value)
                  {
                      seen = value.Text();
                      throw CallError("com.example.Refused", "no");
                  });
    EXPECT_EQ(write(originInterface, "debugproperty", "other"), "com.example.Refused");
    EXPECT_EQ(seen, R"(s "other")");
    EXPECT_EQ(fans->Get("debugproperty"), Value("new"));

    EXPECT_EQ(write(originInterface, "debugproperty", 5), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(write(fanInterface, "fanCount", uint8_t{1}),
              "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_TRUE(DispatchPending(client));
    EXPECT_THAT(signals, ElementsAre(std::string(path) + R"( PropertiesChanged sa{sv}as ")" +
                                     originInterface + R"(" 1 "debugproperty" s "new" 0)"));
}

TEST_F(FakeServiceTest, ChangesAreAnnouncedAsAnnotated)
{
    const auto annotated = [](const std::string& how)
    {
        return R"(<annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value=")" +
               how + R"("/>)";
    };
    const auto property = [](const std::string& of, const std::string& inside)
    { return "<property name='" + of + "' type='i' access='read'>" + inside + "</property>"; };
    std::vector<std::string> signals{"none"};
    client.Collect("type='signal',path='/annotated',member='PropertiesChanged'", signals);
    const auto changes = [&](const std::string& forAll)
    {
        Object& object = fans.AddObject(
            "/annotated", ParseDescription("<node><interface name='a.B'>" + property("Plain", "") +
                                               property("Sent", annotated("true")) +
                                               property("Named", annotated("invalidates")) +
                                               property("Fixed", annotated("const")) + forAll +
                                               "</interface></node>",
                                           "a.B"));
        object.Set({{"Plain", 1}, {"Sent", 2}, {"Named", 3}, {"Fixed", 4}});
        EXPECT_TRUE(DispatchPending(client));
        fans.RemoveObject("/annotated");
        return signals.back();
    };
    const std::string start = R"(/annotated PropertiesChanged sa{sv}as "a.B" )";
    EXPECT_EQ(changes(""), start + R"(2 "Plain" i 1 "Sent" i 2 1 "Named")");
    EXPECT_EQ(changes(annotated("invalidates")), start + R"(1 "Sent" i 2 2 "Plain" "Named")");
    EXPECT_EQ(changes(annotated("false")), start + R"(1 "Sent" i 2 1 "Named")");
}

TEST_F(FakeServiceTest, MethodsAnswerDefaultsHandlersAndErrors)
{
    EXPECT_EQ(client.Call(name, path, dimmInterface, "DimmPowerCmdHandler").Text(),
              "iddddd 0 0 0 0 0 0");
    fans->OnCall("DimmPowerCmdHandler",
                 [](const Call&) -> std::vector<Value> { return {1, 2, 3.5, 4, 5, 6}; });
    EXPECT_EQ(client.Call(name, path, dimmInterface, "DimmPowerCmdHandler").Text(),
              "iddddd 1 2 3.5 4 5 6");
    EXPECT_EQ(client.Call(name, path, "", "DimmPowerCmdHandler").Text(), "iddddd 1 2 3.5 4 5 6");

    fans->OnCall("MemoryCmdHandler",
                 [&](const Call& call) -> std::vector<Value>
                 {
                     fans->Set("fanCount",
                               call.arguments.front().Children().size()); // from the handler
                     return {static_cast<int>(call.arguments.front().Children().size())};
                 });
    const std::vector<Value> command{std::vector<uint8_t>{1, 2, 3}};
    EXPECT_EQ(client.Call(name, path, dimmInterface, "MemoryCmdHandler", command).Text(), "i 3");
    EXPECT_EQ(fans->Get("fanCount"), Value(uint8_t{3}));

    fans->OnCall("getDbusStatus",
                 [](const Call&) -> std::vector<Value>
                 { throw CallError("com.example.Busy", "later"); });
    EXPECT_EQ(client.Call(name, path, dimmInterface, "getDbusStatus").Text(), "com.example.Busy");
    fans->OnCall("MemoryCmdHandler", [](const Call&) -> std::vector<Value> { return {}; });
    EXPECT_EQ(client.Call(name, path, dimmInterface, "MemoryCmdHandler", command).Text(),
              "org.freedesktop.DBus.Error.Failed");
    EXPECT_EQ(client.Call(name, path, dimmInterface, "MemoryCmdHandler").Text(),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(client.Call(name, path, dimmInterface, "None").Text(),
              "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(FakeServiceTest, MisuseIsRefusedByName)
{
    const auto refusal = [](const auto& act) -> std::string
    {
        try
        {
            act();
        }
        catch (const std::invalid_argument& error)
        {
            return error.what();
        }
        return "accepted";
    };
    EXPECT_EQ(refusal([&] { fans->Set("fanCount", 256); }),
              "com.example.Fans /com/example/fans: property fanCount: i 256 does not fit into y "
              "(256 is no y)");
    EXPECT_EQ(fans->Get("fanCount"), Value(uint8_t{4}));
    EXPECT_EQ(refusal(
                  [&] {
                      fans->Set({{"fanCount", 1}, {"fancount", 1}});
                  }),
              "com.example.Fans /com/example/fans: no interface has the property fancount");
    EXPECT_EQ(fans->Get("fanCount"), Value(uint8_t{4}));
    EXPECT_EQ(refusal([&] { fans->Emit("notifyFanReportingData", 1); }),
              "com.example.Fans /com/example/fans: signal notifyFanReportingData has 2 arguments, "
              "not 1");
    EXPECT_EQ(refusal([&] { fans.AddObject(path, {fanInterface}); }),
              "there is an object at /com/example/fans already");
    EXPECT_EQ(refusal([&] { fans.AddObject("fans/", {fanInterface}); }),
              "no object path: \"fans/\"");
    for (const char* error : {"", "Broken", "not an error name", "com.example.\xff"})
    {
        EXPECT_EQ(refusal([&] { fans.On("Get").ReplyError(error); }),
                  "no error name: \"" + Printable(error) + "\"");
    }
    EXPECT_EQ(refusal([&] { fans.On("Get").ReplyError("com.example.Broken", "\xff"); }),
              R"(no text for an error: "\xff")");
    EXPECT_EQ(Get(fanInterface, "fanCount"), "v y 4");
    EXPECT_EQ(refusal([&] { fans.On("GetAl").NoReply(); }), "no object has the method GetAl");
    // It was stored although Set() threw.
    EXPECT_EQ(refusal(
                  [&] {
                      fans->Set({{"fanCount", 1}, {"originstring", "\xff"}});
                  }),
              "com.example.Fans /com/example/fans: property originstring: no message can carry "
              R"(s "\xff")");
    EXPECT_EQ(fans->Get("originstring"), Value(""));
    EXPECT_EQ(Get(fanInterface, "fanCount"), "v y 4");
    EXPECT_THROW(fans.AddObject("/x", {"com.example.None"}), std::runtime_error);
    EXPECT_THROW(FakeService({name}), std::system_error);
}

TEST_F(FakeServiceTest, WhatMayNotTravelIsAnsweredWithTheReason)
{
    const std::string connection = fans.UniqueName();
    const auto reason = [&]
    {
        const Client::Answer answer = client.Call(name, path, dimmInterface, "getDbusStatus");
        EXPECT_EQ(answer.error, "org.freedesktop.DBus.Error.Failed");
        return answer.reason;
    };
    const auto handled = [&](const std::exception_ptr& thrown)
    {
        fans->OnCall("getDbusStatus",
                     [=](const Call&) -> std::vector<Value> { std::rethrow_exception(thrown); });
        return reason();
    };
    EXPECT_EQ(handled(std::make_exception_ptr(CallError("bad name", "x"))),
              R"(no error name: "bad name")");
    EXPECT_EQ(handled(std::make_exception_ptr(CallError("com.example.Busy", "\xff"))),
              R"(no text for an error: "\xff")");
    EXPECT_EQ(handled(std::make_exception_ptr(std::runtime_error("\xff"))),
              R"(no text for an error: "\xff")");

    for (const Value& value : {Value("\xff"), Value(std::string(1, '\0')), Value(Path{"no path"})})
    {
        fans.On("getDbusStatus").Reply({value});
        EXPECT_THAT(reason(), HasSubstr("append " + value.Text()));
        EXPECT_THROW(fans->EmitRaw("com.example.Any", "Thing", {value}), std::system_error);
    }
    fans.Intercept(
        [](const Call&, sd_bus_message* message)
        {
            Service::ReplyError(message, "Broken", "x");
            return true;
        });
    EXPECT_EQ(reason(), R"(no error name: "Broken")");
    EXPECT_EQ(fans.UniqueName(), connection);
}

TEST_F(FakeServiceTest, TheNearestManagerAnnouncesAndLists)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',interface='org.freedesktop.DBus.ObjectManager'", signals);
    const auto announced = [&](const std::string& where)
    {
        fans.AddObject(where, {originInterface}, {{"originstring", "here"}});
        fans.RemoveObject(where);
        EXPECT_TRUE(DispatchPending(client));
        return std::exchange(signals, {});
    };
    const auto from = [](const std::string& manager, const std::string& where)
    {
        const std::string about = "\"" + where + "\" 1 \"com.tamm.bmc.debug.dataorigin\"";
        return ElementsAre(manager + " InterfacesAdded oa{sa{sv}} " + about +
                               R"( 2 "originstring" s "here" "debugproperty" s "")",
                           manager + " InterfacesRemoved oas " + about);
    };
    const auto listed = [&](const char* manager)
    {
        return client.Call(name, manager, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")
            .Text();
    };
    EXPECT_THAT(announced("/com/example/more"), IsEmpty());
    EXPECT_THROW(fans->EmitInterfacesAdded(), std::invalid_argument);
    EXPECT_EQ(listed("/com"), "org.freedesktop.DBus.Error.UnknownMethod");

    fans.Manage("/com");
    fans.Manage("/com/example/inner");
    EXPECT_THAT(announced("/com/example/more"), from("/com", "/com/example/more"));
    EXPECT_THAT(announced("/com/example/inner"), from("/com/example/inner", "/com/example/inner"));
    EXPECT_THAT(announced("/com/example/inner/a"),
                from("/com/example/inner", "/com/example/inner/a"));
    EXPECT_THAT(announced("/com/example/innermost"), from("/com", "/com/example/innermost"));
    EXPECT_THAT(announced("/elsewhere"), IsEmpty());

    fans.AddObject("/com/example/inner", {dimmInterface});
    fans.AddObject("/com/example/inner/a", {dimmInterface});
    EXPECT_THAT(listed("/com"), AllOf(HasSubstr(R"(a{oa{sa{sv}}} 2 "/com/example/fans" 3 )"),
                                      HasSubstr(R"("/com/example/inner" 1 )")));
    EXPECT_THAT(listed("/com/example/inner"), HasSubstr(R"(} 1 "/com/example/inner/a" 1 )"));
    fans.Unmanage("/com");
    EXPECT_EQ(listed("/com"), "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(FakeServiceTest, ANameIsTakenOverInOneStep)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',member='NameOwnerChanged',arg0='com.example.Fans'", signals);
    FakeService next;
    EXPECT_THROW(next.RequestName(name), std::system_error);
    next.TakeName(name);
    next.AddObject(path, {originInterface}, {{"originstring", "next"}});
    EXPECT_EQ(Get(originInterface, "originstring"), R"(v s "next")");
    EXPECT_TRUE(DispatchPending(client));
    EXPECT_THAT(signals, ElementsAre(HasSubstr(" sss \"com.example.Fans\" \"" + fans.UniqueName() +
                                               "\" \"" + next.UniqueName() + "\"")));
    EXPECT_TRUE(fans.Connected());
    EXPECT_THROW(fans.Start(), std::system_error);
    next.Crash();
    fans.Start();
    EXPECT_EQ(Get(fanInterface, "fanCount"), "v y 4");
}

// It was used after it was freed.
TEST_F(FakeServiceTest, ARemovedObjectIsRefused)
{
    fans.RemoveObject(path);
    EXPECT_THROW(fans->Set("fanCount", 1), std::invalid_argument);
    fans.AddObject(path, {fanInterface});
    fans->Set("fanCount", 1);
    EXPECT_EQ(Get(fanInterface, "fanCount"), "v y 1");
}

} // namespace
