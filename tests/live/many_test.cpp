// Many objects: what they share, what wakes the process, and where managers stand.

#include "fixture.hpp"

#include <tuple>

using testing::ElementsAre;

namespace
{

class LiveMany : public LiveTest, public testing::WithParamInterface<const char*>
{
  protected:
    LiveMany() : LiveTest(kit::BusLimits::Stock()) {}

    void Make(int number)
    {
        fans.reset();
        fans = std::make_unique<kit::FakeService>(std::vector<std::string>{fanService});
        for (int i = 0; i < number; ++i)
        {
            fans->AddObject(Path(i), {fanInterface}, {{"fanCount", static_cast<uint8_t>(i % 200)}});
        }
    }
    static std::string Path(int i) { return fanPath + "/tray/" + std::to_string(i); }

    void FollowAll(int number, int first = 0)
    {
        for (int i = first; i < number; ++i)
        {
            lives.push_back(Follow(fanService, Path(i)));
        }
    }
    bool AllLive()
    {
        return Until(
            [&]
            {
                return std::ranges::all_of(lives, [](const auto& live)
                                           { return live.State() == LiveState::Live; });
            });
    }
    size_t Rules() { return bmcbus::ReportLive(connection).rules; }

    std::vector<bmcbus::Live<Fans>> lives;
};

// More than a stock bus has rules for, or lets wait for replies.
TEST_F(LiveMany, TwoThousandOnAStockBus)
{
    constexpr int number = 2000;
    Make(number);
    FollowAll(number);
    ASSERT_TRUE(AllLive());
    EXPECT_LE(Rules(), 4U);
    fans->ObjectAt(Path(1234)).Set("fanCount", uint8_t{222});
    EXPECT_TRUE(Until([&] { return lives[1234]->Get_fanCount() == 222; }));
    lives.clear();
    EXPECT_EQ(bmcbus::ReportLive(connection).rules, 0U);
}

TEST_F(LiveMany, ASetReadsItsMembersTogether)
{
    Make(100);
    fans->Manage("/");
    const bmcbus::LiveSet<Fans> set(connection, fanPath, {.service = fanService});
    ASSERT_TRUE(Until([&] { return set.size() == 100; }));
    EXPECT_EQ(fans->Calls("GetAll").size(), 0U);
}

TEST_F(LiveMany, WithoutAManagerReadsGoTogether)
{
    Make(200);
    fans->On("GetAll").Hold();
    FollowAll(200);
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(64, std::chrono::milliseconds(1)); }));
    Deliver();
    EXPECT_EQ(fans->Calls("GetAll").size(), 64U) << "a stock bus refuses more than 128";
    fans->Heal();
    fans->Release();
    EXPECT_TRUE(AllLive());
}

// All reads that may be in flight used to be those of the one.
TEST_F(LiveMany, AServiceThatHangsDoesNotDelayAnother)
{
    Make(100);
    fans->On("GetAll").Hold();
    FollowAll(100);
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(64, std::chrono::milliseconds(1)); }));
    const kit::FakeService other("com.example.Others", fanPath, {fanInterface});
    const bmcbus::Live<Fans> live = Follow("com.example.Others");
    EXPECT_TRUE(Becomes(live, LiveState::Live));
    fans->Heal();
    fans->Release();
}

// The manager of the one used to be asked for all.
TEST_F(LiveMany, AManagerBelowAnother)
{
    Make(40);
    fans->Manage("/");
    FollowAll(40);
    ASSERT_TRUE(AllLive());
    fans->Manage(Path(3));
    fans->RemoveObject(Path(3));
    fans->AddObject(Path(3), {fanInterface});
    Deliver();
    fans->Crash();
    ASSERT_TRUE(Becomes(lives[0], LiveState::Lost));
    fans->ClearCalls();
    fans->Start();
    ASSERT_TRUE(AllLive());
    EXPECT_LE(fans->Calls("GetAll").size(), 1U);
}

class LiveManager : public LiveMany
{
};

TEST_P(LiveManager, ListsAllAtOnce)
{
    kit::FakeMapper mapper;
    mapper.Add(GetParam(), fanService, {"org.freedesktop.DBus.ObjectManager"});
    Make(100);
    fans->Manage(GetParam());
    FollowAll(100);
    ASSERT_TRUE(AllLive());
    EXPECT_EQ(fans->Calls("GetAll").size(), 0U);
    EXPECT_LE(fans->Calls("GetManagedObjects").size(), 2U);
    for (int i = 0; i < 100; ++i)
    {
        EXPECT_EQ(lives[static_cast<size_t>(i)]->Get_fanCount(), i);
    }
}

// An object without values used to count as gone for good.
TEST_F(LiveMany, AManagerThatListsNoValues)
{
    Make(20);
    fans->Manage("/com/example");
    const Value none = Value::Dictionary("s", "a{sv}", {{fanInterface, kit::AsPropertyMap({})}});
    fans->On("GetManagedObjects")
        .Reply({Value::Dictionary("o", "a{sa{sv}}", {{kit::Path{Path(7)}, none}})});
    FollowAll(20);
    EXPECT_TRUE(AllLive());
}

TEST_P(LiveManager, TellsOfHotPlug)
{
    for (const int number : {1, 40}) // with rules of each object, and of the service
    {
        Make(number);
        fans->Manage(GetParam());
        FollowAll(number);
        ASSERT_TRUE(AllLive());
        fans->RemoveObject(Path(0));
        ASSERT_TRUE(Becomes(lives[0], LiveState::Lost));
        fans->AddObject(Path(0), {fanInterface}, {{"fanCount", uint8_t{77}}});
        ASSERT_TRUE(Becomes(lives[0], LiveState::Live));
        EXPECT_EQ(lives[0]->Get_fanCount(), 77);
        lives.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Ancestors, LiveManager,
                         testing::Values("/", "/com/example", "/com/example/fans/tray"));

TEST_F(LiveMany, FewAreNotWokenByOthers)
{
    Make(40);
    FollowAll(16);
    ASSERT_TRUE(AllLive());
    EXPECT_EQ(Rules(), 1U + 16U * 2U);
    uint64_t heard = 0;
    sd_bus_slot* slot = nullptr;
    const auto count = [](sd_bus_message* message, void* counter, sd_bus_error*)
    {
        const char* interface = sd_bus_message_get_interface(message);
        const bool theirs =
            interface != nullptr && interface == std::string("org.freedesktop.DBus.Properties");
        *static_cast<uint64_t*>(counter) += theirs ? 1 : 0;
        return 0;
    };
    ASSERT_GE(sd_bus_add_filter(connection, &slot, count, &heard), 0);
    for (int i = 16; i < 40; ++i)
    {
        fans->ObjectAt(Path(i)).Set("fanCount", uint8_t{199});
    }
    Deliver();
    EXPECT_EQ(heard, 0U);
    fans->ObjectAt(Path(0)).Set("fanCount", uint8_t{199});
    Deliver();
    EXPECT_EQ(heard, 1U);
    // Above that number the rules are the service's, and what they bring in vain is counted.
    FollowAll(20, 16);
    ASSERT_TRUE(AllLive());
    Deliver();
    EXPECT_EQ(Rules(), 3U);
    fans->ObjectAt(Path(30)).Set("fanCount", uint8_t{1});
    Deliver();
    EXPECT_EQ(heard, 2U);
    EXPECT_EQ(bmcbus::ReportLive(connection).needless, 1U);
    // And back, without a gap.
    lives.erase(lives.begin() + 5, lives.end());
    lives.push_back(Follow(fanService, Path(39)));
    ASSERT_TRUE(AllLive());
    Deliver();
    EXPECT_EQ(Rules(), 1U + 6U * 2U);
    fans->ObjectAt(Path(2)).Set("fanCount", uint8_t{150});
    Deliver();
    EXPECT_EQ(lives[2]->Get_fanCount(), 150);
    sd_bus_slot_unref(slot);
}

// What a refused rule would have brought is not known, so nothing may be called live.
TEST_F(LiveMany, ARefusedRuleMakesNothingLive)
{
    Make(1);
    std::vector<bmcbus::Slot> taken;
    const auto ignore = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
    for (int i = 0;; ++i)
    {
        sd_bus_slot* slot = nullptr;
        const std::string rule = "type='signal',member='M" + std::to_string(i) + "'";
        if (sd_bus_add_match(connection, &slot, rule.c_str(), ignore, nullptr) < 0)
        {
            break;
        }
        taken.emplace_back(slot);
    }
    FollowAll(1);
    ASSERT_TRUE(Until([&] { return lives[0].Report().reads > 0; }));
    const bmcbus::LiveSignal<FanSignal> signal(connection, Path(0), {.service = fanService});
    lives.push_back(Follow("com.example.Others"));
    Deliver();
    EXPECT_NE(lives[0].State(), LiveState::Live);
    EXPECT_NE(signal.State(), LiveState::Live) << "used to be, and heard nothing";
    EXPECT_EQ(lives[0].Report().error, "org.freedesktop.DBus.Error.LimitsExceeded");
    // Who came and went meanwhile used to be unknown for good.
    fans->Crash();
    fans->Start();
    const kit::FakeService others("com.example.Others", fanPath, {fanInterface});
    taken.clear();
    ASSERT_TRUE(AllLive());
    EXPECT_TRUE(Until([&] { return signal.State() == LiveState::Live; }));
    fans->ObjectAt(Path(0)).Set("fanCount", uint8_t{9});
    Deliver();
    EXPECT_EQ(lives[0]->Get_fanCount(), 9);
}

} // namespace
