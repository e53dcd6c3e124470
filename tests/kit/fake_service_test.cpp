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

TEST_F(FakeServiceTest, SignalsCarryWhatTheTestSays)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',path_namespace='/com'", signals);
    const std::string at = std::string(path) + " ";
    fans.Manage("/com");

    fans->Set({{"fanCount", 5}, {"fanPWMData", FanData()}});
    fans->SetQuietly({{"fanCount", 6}});
    fans->Emit("notifyFanReportingData", 7, FanData{{"f", {1, 2, 3, false}}});
    fans->EmitRaw("com.example.Any", "Thing", {Value(std::vector<Value>{1, "two"})});
    fans->EmitPropertiesChanged(fanInterface, {{"fanCount", "no"}, {"fanCount", 9}, {"odd", true}},
                                {"fanPWMData"});
    fans->Invalidate({{"originstring", "later"}, {"fanCount", 8}});
    EXPECT_EQ(fans->Get("fanCount"), Value(uint8_t{8}));
    fans->RemoveInterface(dimmInterface);
    fans->AddInterface(dimmInterface);
    EXPECT_TRUE(DispatchPending(client));
    EXPECT_THAT(
        signals,
        ElementsAre(
            at +
                R"(PropertiesChanged sa{sv}as "com.tamm.bmc.Thermal.FanReporting" 2 "fanCount" y 5 )" +
                R"("fanPWMData" a{s(yyyb)} 0 0)",
            at + R"(notifyFanReportingData ya{s(yyyb)} 7 1 "f" 1 2 3 false)",
            at + R"(Thing av 2 i 1 s "two")",
            at + R"(PropertiesChanged sa{sv}as "com.tamm.bmc.Thermal.FanReporting" 3 )" +
                R"("fanCount" s "no" "fanCount" i 9 "odd" b true 1 "fanPWMData")",
            at + R"(PropertiesChanged sa{sv}as "com.tamm.bmc.Thermal.FanReporting" 0 1 "fanCount")",
            at + R"(PropertiesChanged sa{sv}as "com.tamm.bmc.debug.dataorigin" 0 1 "originstring")",
            R"(/com InterfacesRemoved oas "/com/example/fans" 1 "com.tamm.bmc.Memory.Dimm")",
            R"(/com InterfacesAdded oa{sa{sv}} "/com/example/fans" 1 "com.tamm.bmc.Memory.Dimm" 0)"));
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

TEST_F(FakeServiceTest, AMatchAddedAfterwardsSeesNothing)
{
    std::vector<std::string> signals;
    for (int round = 0; round < 50; ++round)
    {
        fans->Set("fanCount", round);
        Client late;
        late.Collect("type='signal'", signals);
        EXPECT_TRUE(DispatchPending(late));
    }
    EXPECT_THAT(signals, Not(ElementsAre(HasSubstr("PropertiesChanged"))));
    for (const std::string& signal : signals)
    {
        EXPECT_THAT(signal, Not(HasSubstr("fanCount")));
    }
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

TEST_F(FakeServiceTest, FaultsHitTheNamedCallsAsOftenAsSaid)
{
    fans.On("GetAll").Once().ReplyError("com.example.Broken");
    EXPECT_EQ(GetAll(), "com.example.Broken");
    EXPECT_THAT(GetAll(), HasSubstr("a{sv}"));

    fans.On("GetAll").Times(2).Reply({"text", 1});
    EXPECT_EQ(GetAll(), R"(si "text" 1)");
    EXPECT_EQ(GetAll(), R"(si "text" 1)");
    EXPECT_THAT(GetAll(), HasSubstr("a{sv}"));

    fans.On("GetAll").Reply({AsPropertyMap({{"fanCount", uint8_t{1}}, {"fanCount", uint8_t{2}}})});
    EXPECT_EQ(GetAll(), R"(a{sv} 2 "fanCount" y 1 "fanCount" y 2)");
    fans.On("GetAll").Reply({AsPropertyMap({})});
    EXPECT_EQ(GetAll(), "a{sv} 0");
    fans.On("GetAll").Reply({});
    EXPECT_EQ(GetAll(), "");

    fans.On("Get", "fanCount").Reply({Value::Variant("wrong")});
    EXPECT_EQ(Get(fanInterface, "fanCount"), R"(v s "wrong")");
    EXPECT_EQ(Get(fanInterface, "fanPWMData"), "v a{s(yyyb)} 0");
    fans.Heal("GetAll");
    EXPECT_THAT(GetAll(), HasSubstr("y 4"));
    EXPECT_EQ(Get(fanInterface, "fanCount"), R"(v s "wrong")");
    fans.On("*").ReplyError("com.example.All");
    EXPECT_EQ(client.Call(name, path, dimmInterface, "getDbusStatus").Text(), "com.example.All");
    fans.Heal();
    EXPECT_EQ(Get(fanInterface, "fanCount"), "v y 4");
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

TEST_F(FakeServiceTest, SilentLateAndHeldAnswers)
{
    fans.On("GetAll").Once().NoReply();
    const auto unanswered =
        client.Call(name, path, "org.freedesktop.DBus.Properties", "GetAll", {fanInterface}, 20000);
    EXPECT_EQ(unanswered.error, "org.freedesktop.DBus.Error.Timeout");

    fans.On("GetAll").Hold();
    std::string answer;
    std::thread caller(
        [&]
        {
            Client other;
            answer = other.Properties(name, path, "GetAll", {fanInterface}).Text();
        });
    EXPECT_TRUE(fans.WaitForHeld());
    fans->Set("fanCount", 77);
    fans.Release();
    caller.join();
    EXPECT_THAT(answer, HasSubstr("y 77"));

    fans.On("GetAll").Delay(std::chrono::milliseconds(5));
    EXPECT_THAT(GetAll(), HasSubstr("y 77"));
}

TEST_F(FakeServiceTest, CrashStopAndComeBack)
{
    const auto owned = [&]
    {
        return client
            .Call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                  "NameHasOwner", {name})
            .Text();
    };
    const std::string before = fans.UniqueName();
    fans.On("GetAll").Once().Crash();
    EXPECT_EQ(GetAll(), "org.freedesktop.DBus.Error.NoReply");
    EXPECT_FALSE(fans.Connected());
    EXPECT_EQ(fans.UniqueName(), "");
    EXPECT_EQ(owned(), "b false");
    fans->Set("fanCount", 9); // stored, nobody hears of it
    EXPECT_THROW(fans->Emit("debugsignal", "x"), std::system_error);
    fans.Start();
    EXPECT_NE(fans.UniqueName(), before);
    EXPECT_THAT(GetAll(), HasSubstr("y 9"));

    // A call on hold dies with the connection that it came over.
    fans.On("GetAll").Once().Hold();
    std::string answer;
    std::thread caller(
        [&]
        {
            Client other;
            answer = other.Properties(name, path, "GetAll", {fanInterface}).Text();
        });
    EXPECT_TRUE(fans.WaitForHeld());
    fans.Stop();
    caller.join();
    EXPECT_EQ(answer, "org.freedesktop.DBus.Error.NoReply");
    fans.Start();
    fans.Release();
    EXPECT_THAT(GetAll(), HasSubstr("y 9"));

    fans.ReleaseName(name);
    EXPECT_EQ(owned(), "b false");
    fans.RequestName(name);
    EXPECT_EQ(owned(), "b true");
}

TEST_F(FakeServiceTest, CallsAreRemembered)
{
    GetAll();
    client.Call(name, path, dimmInterface, "MemoryCmdHandler", {std::vector<uint8_t>{7, 8}});
    EXPECT_TRUE(fans.WaitForCalls("MemoryCmdHandler"));
    const Call call = fans.Calls("MemoryCmdHandler").front();
    EXPECT_EQ(call.Arguments(), "ay 2 7 8");
    EXPECT_EQ(call.interface, dimmInterface);
    EXPECT_EQ(call.path, path);
    EXPECT_EQ(call.sender, client.UniqueName());
    EXPECT_EQ(fans.Calls().size(), 2U);
    fans.ClearCalls();
    EXPECT_THAT(fans.Calls(), IsEmpty());
    client.Properties(name, path, "GetAll", {fanInterface});
    const Waited waited = fans.WaitForCalls("GetAll", 2, std::chrono::milliseconds(1));
    EXPECT_FALSE(waited);
    EXPECT_EQ(waited.Instead(), "1 of 2 calls of GetAll came, of all calls:\n"
                                "  /com/example/fans org.freedesktop.DBus.Properties.GetAll s "
                                "\"com.tamm.bmc.Thermal.FanReporting\"");
}

TEST_F(FakeServiceTest, ManyThreadsMayUseOneService)
{
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                Client own;
                for (int i = 0; i < 30; ++i)
                {
                    fans->Set("fanCount", t);
                    fans.On("getDbusStatus").ReplyError("com.example.E");
                    wrong +=
                        own.Call(name, path, dimmInterface, "getDbusStatus").error.empty() ? 1 : 0;
                    wrong +=
                        own.Properties(name, path, "GetAll", {fanInterface}).error.empty() ? 0 : 1;
                    wrong += fans.Calls().empty() ? 1 : 0;
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(fans.Calls("GetAll").size(), 120U);
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

TEST_F(FakeServiceTest, TheTreeIsVisible)
{
    FakeService other({"com.example.Other", "com.example.Second"});
    other.AddObject("/a/b", {fanInterface});
    const auto introspect = [&](const char* service, const char* at) {
        return client.Call(service, at, "org.freedesktop.DBus.Introspectable", "Introspect").Text();
    };
    EXPECT_THAT(introspect(name, "/"), HasSubstr(R"(<node name=\"com\"/>)"));
    EXPECT_THAT(introspect(name, path), HasSubstr("fanPWMData"));
    EXPECT_THAT(introspect("com.example.Second", "/a"), HasSubstr(R"(<node name=\"b\"/>)"));
    EXPECT_EQ(introspect(name, "/none"), "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(client.Call(name, path, "org.freedesktop.DBus.Peer", "Ping").Text(), "");
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
