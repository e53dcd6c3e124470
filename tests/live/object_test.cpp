// One live object: when its values may be trusted, and what its callbacks are told.

#include "fixture.hpp"

#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class LiveObject : public LiveTest
{
};

TEST_F(LiveObject, ServiceFirst)
{
    StartFans();
    const bmcbus::Live<Fans> live = Follow();
    EXPECT_EQ(live.State(), LiveState::Absent);
    EXPECT_EQ(live.Age(), std::nullopt) << "there have been no values";
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live->Get_fanCount(), 2);
    EXPECT_EQ(live->Get_fanPWMData(), twoFans);
    EXPECT_TRUE(live->Ready());
    EXPECT_EQ(live.Age(), std::chrono::microseconds(0));
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "fanCount=2", "fanPWMData"));
}

TEST_F(LiveObject, ClientFirst)
{
    const bmcbus::Live<Fans> live = Follow();
    Deliver();
    EXPECT_EQ(live.State(), LiveState::Absent);
    StartFans();
    EXPECT_TRUE(Becomes(live, LiveState::Live));
}

// Its signal used to wait for the end of the pause after the last read.
TEST_F(LiveObject, ASignalOfAnObjectThatWasNotThere)
{
    fans = std::make_unique<kit::FakeService>(Lines{fanService});
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Until([&] { return live.Report().reads == 4; }));
    fans->AddObject(fanPath, {fanInterface});
    fans->ObjectAt(fanPath).Set("fanCount", uint8_t{3});
    Deliver();
    EXPECT_NE(live.State(), LiveState::Absent) << "it is being read";
}

// One early signal used to make a proxy ready with one value of ten.
TEST_F(LiveObject, ASignalBeforeTheReadMakesNothingLive)
{
    StartFans();
    fans->On("GetAll").Hold();
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Becomes(live, LiveState::Reading));
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(1, std::chrono::milliseconds(1)); }));
    (*fans)->Set("fanCount", uint8_t{7});
    Deliver();
    EXPECT_EQ(live.State(), LiveState::Reading);
    EXPECT_FALSE(live->Ready());
    EXPECT_EQ(live->Get_fanCount(), 0);
    EXPECT_THAT(Seen(), ElementsAre("Reading"));
    // The answer is of a later moment than the signal, whatever the signal said.
    (*fans)->SetQuietly({{"fanCount", uint8_t{8}}});
    fans->Release();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live->Get_fanCount(), 8);
    EXPECT_THAT(Seen(), ElementsAre("Live", "fanCount=8", "fanPWMData"));
}

TEST_F(LiveObject, ChangesAreThoseThatChanged)
{
    const bmcbus::Live<Fans> live = Running();
    (*fans)->Set({{"fanCount", uint8_t{3}}, {"fanPWMData", twoFans}});
    Deliver();
    EXPECT_THAT(Seen(), ElementsAre("fanCount=3"));
    EXPECT_EQ(live->SignalCount(), 1U);
    // The same dictionary in another order is the same value.
    const Value one = Value::Struct({uint8_t{30}, uint8_t{31}, uint8_t{32}, true});
    const Value two = Value::Struct({uint8_t{40}, uint8_t{41}, uint8_t{42}, false});
    (*fans)->EmitPropertiesChanged(
        fanInterface,
        {{"fanPWMData", Value::Dictionary("s", "(yyyb)", {{"fan2", two}, {"fan1", one}})}});
    Deliver();
    EXPECT_THAT(Seen(), IsEmpty());
    for (const char* const name : {"fan1", "fan3"})
    {
        (*fans)->Set("fanPWMData", FanMap{{name, {30, 31, 33, true}}});
        Deliver();
        EXPECT_THAT(Seen(), ElementsAre("fanPWMData"));
    }
    fans->Manage("/com/example");
    (*fans)->SetQuietly({{"fanCount", uint8_t{4}}});
    (*fans)->EmitInterfacesAdded();
    Deliver();
    EXPECT_THAT(Seen(), ElementsAre("fanCount=4"));
}

TEST_F(LiveObject, ACrashAndAReturn)
{
    const bmcbus::Live<Fans> live = Running();
    fans->Crash();
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    EXPECT_EQ(live->Get_fanCount(), 2) << "the last values remain";
    EXPECT_FALSE(live->Ready());
    EXPECT_GT(live.Age(), std::chrono::microseconds(0));
    EXPECT_THAT(Seen(), ElementsAre("Lost"));

    (*fans)->SetQuietly({{"fanCount", uint8_t{5}}});
    fans->Start();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live->Get_fanCount(), 5);
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "fanCount=5"));
}

// The new owner does not serve a property that the old one had.
TEST_F(LiveObject, ANewOwnerWithoutAPropertyUnsetsIt)
{
    const bmcbus::Live<Fans> live = Running();
    fans->Crash();
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    fans->On("GetAll").Reply({kit::AsPropertyMap({{"fanPWMData", twoFans}})});
    fans->Start();
    Seen();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "fanCount unset"));
    bool set = true;
    uint8_t count = 1;
    live->Get_fanCount(set, count);
    EXPECT_FALSE(set);
}

TEST_F(LiveObject, ANameTakenOverDuringTheFirstRead)
{
    StartFans();
    fans->On("GetAll").Hold();
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(1, std::chrono::milliseconds(1)); }));
    Seen();
    fans->ReleaseName(fanService);
    kit::FakeService second(fanService, fanPath, {fanInterface});
    second->SetQuietly({{"fanCount", uint8_t{9}}});
    fans->Release();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live->Get_fanCount(), 9);
    Deliver();
    EXPECT_EQ(live->Get_fanCount(), 9);
    EXPECT_THAT(Seen(), ElementsAre("Absent", "Reading", "Live", "fanCount=9", "fanPWMData"));
    // The former owner is a stranger now.
    (*fans)->Set("fanCount", uint8_t{1});
    Deliver();
    EXPECT_EQ(live->Get_fanCount(), 9);
    EXPECT_EQ(live.Report().strangers, 1U);
    fans.reset();
}

TEST_F(LiveObject, StrangersChangeNothing)
{
    const bmcbus::Live<Fans> live = Running();
    kit::FakeService stranger;
    stranger.AddObject(fanPath, {fanInterface});
    stranger->EmitPropertiesChanged(fanInterface, {{"fanCount", uint8_t{66}}});
    stranger.EmitRaw(fanPath, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                     {kit::Path{fanPath}, std::vector{fanInterface}});
    stranger.EmitRaw("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                     {fanService, fans->UniqueName(), std::string()});
    Deliver();
    EXPECT_EQ(live.State(), LiveState::Live);
    EXPECT_EQ(live->Get_fanCount(), 2);
    EXPECT_THAT(Seen(), IsEmpty());
    EXPECT_GE(live.Report().strangers, 2U);
}

TEST_F(LiveObject, InvalidatedPropertiesAreReadTogether)
{
    const bmcbus::Live<Fans> live = Running();
    fans->ClearCalls();
    fans->On("GetAll").Hold();
    (*fans)->SetQuietly({{"fanCount", uint8_t{4}}});
    (*fans)->EmitPropertiesChanged(fanInterface, {}, {"fanCount", "fanPWMData", "unknown"});
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(1, std::chrono::milliseconds(1)); }));
    bool set = true;
    uint8_t count = 1;
    live->Get_fanCount(set, count);
    EXPECT_FALSE(set);
    EXPECT_EQ(live.State(), LiveState::Live);
    EXPECT_THAT(Seen(), IsEmpty());
    fans->Release();
    ASSERT_TRUE(Until([&] { return !seen.empty(); }));
    EXPECT_THAT(Seen(), ElementsAre("fanCount=4", "fanPWMData"));
    EXPECT_EQ(fans->Calls("GetAll").size(), 1U);
    EXPECT_EQ(fans->Calls("Get").size(), 0U);
}

// It used to be forgotten with the owner, and one of a property without a value told as a change.
TEST_F(LiveObject, AnInvalidationIsToldOnceAfterARestart)
{
    const bmcbus::Live<Fans> live = Running();
    fans->On("GetAll").NoReply();
    (*fans)->EmitPropertiesChanged(fanInterface, {}, {"fanCount"});
    Deliver();
    fans->Crash();
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    fans->On("GetAll").Reply({kit::AsPropertyMap({{"fanPWMData", twoFans}})});
    fans->Start();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    (*fans)->EmitPropertiesChanged(fanInterface, {}, {"fanCount"});
    ASSERT_TRUE(Until([&] { return live.Report().reads == 3; }));
    EXPECT_THAT(Seen(), ElementsAre("Lost", "Reading", "Live", "fanCount unset"));
}

TEST_F(LiveObject, AWrongTypeIsRefused)
{
    const bmcbus::Live<Fans> live = Running();
    test::ClearLog();
    (*fans)->EmitPropertiesChanged(fanInterface, {{"fanCount", "many"}, {"fanPWMData", FanMap()}});
    Deliver();
    EXPECT_EQ(live->Get_fanCount(), 2);
    EXPECT_EQ(live->Get_fanPWMData(), FanMap());
    EXPECT_THAT(Seen(), ElementsAre("fanPWMData"));
    EXPECT_EQ(live.Report().refused, 1U);
    bool named = false;
    for (const test::LogLine& line : test::Log(2))
    {
        named = named || line.text == "refused " + fanInterface + ".fanCount at " + fanPath +
                                          ": type s instead of y";
    }
    EXPECT_TRUE(named);
}

TEST_F(LiveObject, AReadWithAWrongTypeMakesNothingLive)
{
    StartFans();
    fans->On("GetAll").Reply({kit::AsPropertyMap({{"fanCount", 2}, {"fanPWMData", twoFans}})});
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Until([&] { return live.Report().reads >= 2; })) << "tried again";
    EXPECT_EQ(live.State(), LiveState::Reading);
    EXPECT_THAT(live.Report().error_text, HasSubstr("fanCount has type i instead of y"));
    fans->Heal();
    EXPECT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live.Report().error, "");
}

// An invalidated property used to stay unset for good when the read for it brought a wrong type.
TEST_F(LiveObject, AWrongTypeAfterAnInvalidationIsReadAgain)
{
    const bmcbus::Live<Fans> live = Running();
    fans->On("GetAll").Once().Reply(
        {kit::AsPropertyMap({{"fanCount", 4}, {"fanPWMData", twoFans}})});
    (*fans)->SetQuietly({{"fanCount", uint8_t{4}}});
    (*fans)->EmitPropertiesChanged(fanInterface, {}, {"fanCount"});
    EXPECT_TRUE(Until([&] { return live->Get_fanCount() == 4; }));
    EXPECT_EQ(live.State(), LiveState::Live);
}

TEST_F(LiveObject, AFailedReadIsRepeated)
{
    StartFans();
    fans->On("GetAll").Times(2).ReplyError("com.example.Error.Busy", "later");
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Until([&] { return live.Report().error == "com.example.Error.Busy"; }));
    EXPECT_EQ(live.Report().error_text, "later");
    EXPECT_EQ(live.State(), LiveState::Reading);
    EXPECT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_EQ(live.Report().error, "");
    EXPECT_EQ(live.Report().reads, 3U);
}

TEST_F(LiveObject, EndedInItsOwnCallback)
{
    StartFans();
    std::optional<bmcbus::Live<Fans>> once;
    auto big = std::make_unique<std::vector<int>>(100, 7);
    int sum = 0;
    once.emplace(connection, fanPath,
                 bmcbus::LiveOptions<Fans>{
                     .service = fanService,
                     .on_change = [&, held = std::move(big)](Fans& now, const bmcbus::Changes&)
                     {
                         once.reset();
                         sum = (*held)[99] + now.Get_fanCount();
                     }});
    EXPECT_TRUE(Until([&] { return sum == 9; }));
    Deliver();
    EXPECT_THAT(kit::FakeService().UniqueName(), testing::StartsWith(":"));
}

TEST_F(LiveObject, ACallbackThatThrowsIsLogged)
{
    StartFans();
    const bmcbus::Live<Fans> thrower(connection, fanPath,
                                     {.service = fanService, .on_state = [](Fans&, LiveState) {
                                          throw std::runtime_error("no reason");
                                      }});
    const bmcbus::Live<Fans> live = Follow();
    EXPECT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_TRUE(Becomes(thrower, LiveState::Live));
}

TEST_F(LiveObject, MovesAndIsReplaced)
{
    StartFans();
    bmcbus::Live<Fans> live = Follow();
    Fans* const object = &*live;
    bmcbus::Live<Fans> moved = std::move(live);
    EXPECT_EQ(&*moved, object);
    ASSERT_TRUE(Becomes(moved, LiveState::Live));
    live = Follow("com.example.Nobody");
    moved = std::move(live);
    Deliver();
    EXPECT_EQ(moved.State(), LiveState::Absent);
    // Used to go on with the object of the other.
    EXPECT_EQ(bmcbus::ReportLive(connection).objects.size(), 1U);
    // Used to end the program.
    EXPECT_EQ(live.State(), LiveState::Absent); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(live.Age(), std::nullopt);
    EXPECT_EQ(live.Report().path, "");
    bmcbus::LiveSet<Fans> set(connection, "/com");
    const bmcbus::LiveSet<Fans> taken = std::move(set);
    EXPECT_TRUE(set.empty() && set.begin() == set.end()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(set.Find(fanPath), nullptr);
    EXPECT_EQ(set.State(fanPath), LiveState::Absent);
}

// A null pointer used to be called, and an empty std::function logged at each message.
TEST_F(LiveObject, CallablesThatHoldNoneAreNone)
{
    StartFans();
    void (*const none)(Fans&, const bmcbus::Changes&) = nullptr;
    const bmcbus::Live<Fans> live(connection, fanPath,
                                  {.service = fanService,
                                   .on_change = none,
                                   .on_state = std::function<void(Fans&, LiveState)>()});
    test::ClearLog();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    EXPECT_THAT(test::Log(2), IsEmpty());
}

// The manager of the former owner used to be waited for.
TEST_F(LiveObject, ANewOwnerWithoutAManager)
{
    StartFans();
    fans->Manage("/com/example");
    const bmcbus::Live<Fans> live = Follow();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    fans->RemoveObject(fanPath);
    ASSERT_TRUE(Becomes(live, LiveState::Lost));
    fans.reset();
    fans = std::make_unique<kit::FakeService>(Lines{fanService});
    ASSERT_TRUE(Until([&] { return live.Report().reads == 2; }));
    fans->AddObject(fanPath, {fanInterface});
    EXPECT_TRUE(Becomes(live, LiveState::Live));
}

// What was known already used to be told before the handle had its name.
TEST_F(LiveObject, NoCallbackRunsInsideAConstructor)
{
    const bmcbus::Live<Fans> live = Running();
    std::optional<bmcbus::Live<Fans>> ended = Follow();
    ended.reset();
    const bmcbus::Live<Fans> second = Follow();
    EXPECT_THAT(Seen(), IsEmpty());
    ASSERT_TRUE(Becomes(second, LiveState::Live));
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "fanCount=2", "fanPWMData"));
}

TEST_F(LiveObject, NamesThatAreNoneAreRefused)
{
    EXPECT_THROW(Follow(fanService, "fans"), bmcbus::Error);
    EXPECT_THROW(Follow("no'name", fanPath), bmcbus::Error);
    EXPECT_THROW(Follow(fanService, std::string("/a\0b", 4)), bmcbus::Error);
}

TEST_F(LiveObject, TheConnectionEnds)
{
    const bmcbus::Live<Fans> live = Running();
    const bmcbus::LiveSignal<FanSignal> signal(connection, fanPath, {.service = fanService});
    ASSERT_TRUE(Until([&] { return signal.State() == LiveState::Live; }));
    bus.Kill();
    while (sd_bus_process(connection, nullptr) > 0)
    {
    }
    fans.reset();
    EXPECT_EQ(signal.Report().missed, 1U);
    EXPECT_THROW(Follow(), bmcbus::Error) << "on what has ended";
    sd_bus_unref(connection);
    connection = nullptr;
    EXPECT_THAT(Seen(), ElementsAre("Lost"));
    EXPECT_EQ(live.Report().error, "org.freedesktop.DBus.Error.Disconnected");

    bus.Restart();
    StartFans();
    ASSERT_GE(sd_bus_default_system(&connection), 0);
    const bmcbus::Live<Fans> again = Follow();
    EXPECT_TRUE(Becomes(again, LiveState::Live)) << "the old handle does not keep the connection";
    EXPECT_EQ(live.State(), LiveState::Lost);
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "fanCount=2", "fanPWMData"));
}

// Nobody is called any more in a plain loop.
TEST_F(LiveObject, ACallbackEndsTheConnectionOfAPlainLoop)
{
    StartFans();
    const auto close = [&](Fans&, LiveState state)
    {
        seen.emplace_back(Name(state));
        if (state == LiveState::Live)
        {
            sd_bus_flush_close_unref(std::exchange(connection, nullptr));
        }
    };
    const bmcbus::Live<Fans> live(connection, fanPath, {.service = fanService, .on_state = close});
    while (connection != nullptr && sd_bus_process(connection, nullptr) >= 0)
    {
        static_cast<void>(connection != nullptr && sd_bus_wait(connection, 10'000) != 0);
    }
    EXPECT_THAT(Seen(), ElementsAre("Reading", "Live", "Lost"));
}

TEST_F(LiveObject, ReportsItself)
{
    const bmcbus::Live<Fans> live = Running();
    const bmcbus::LiveReport report = live.Report();
    EXPECT_EQ(report.service, fanService);
    EXPECT_EQ(report.owner, fans->UniqueName());
    EXPECT_EQ(report.interface, fanInterface);
    EXPECT_EQ(report.reads, 1U);
    EXPECT_THAT(bmcbus::ReportLiveTable(connection), HasSubstr(fanPath + " Live"));
    EXPECT_EQ(bmcbus::ReportLive(connection).objects.size(), 1U);
    const bmcbus::Live<Fans> longest = Follow(fanService, "/" + std::string(600, 'x'));
    EXPECT_THAT(bmcbus::ReportLiveTable(connection), HasSubstr("ms  \n2 objects"));
    // A thread without a connection used to open one for the question.
    std::thread(
        []
        {
            EXPECT_EQ(bmcbus::ReportLive().rules, 0U);
            EXPECT_EQ(sd_bus_default_system(nullptr), 0);
        })
        .join();
}

} // namespace
