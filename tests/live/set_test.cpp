// Sets of live objects, and live signals.

#include "fixture.hpp"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

class LiveSets : public LiveTest
{
  protected:
    static constexpr const char* root = "/com/example/trays";

    void StartTrays(const std::vector<std::string>& names, bool managed = true)
    {
        fans = std::make_unique<kit::FakeService>(std::vector<std::string>{fanService});
        if (managed)
        {
            fans->Manage("/com/example");
        }
        for (const std::string& name : names)
        {
            Plug(name);
        }
        fans->AddObject("/com/example/traysAndMore", {fanInterface});
        fans->AddObject(root, {fanInterface});
    }
    static std::string Path(const std::string& name) { return std::string(root) + "/" + name; }
    void Plug(const std::string& name)
    {
        fans->AddObject(Path(name), {fanInterface},
                        {{"fanCount", static_cast<uint8_t>(name.size())}});
        if (mapper)
        {
            mapper->Add(Path(name), fanService, {fanInterface});
        }
    }
    bmcbus::LiveSet<Fans> FollowSet(const std::string& service = fanService)
    {
        const auto write = [this](const char* what)
        { return [this, what](Fans& fan) { seen.push_back(what + Name(fan)); }; };
        return {connection,
                root,
                {.service = service,
                 .on_add = write("+"),
                 .on_remove = write("-"),
                 .on_change = [this](Fans& fan, const bmcbus::Changes&)
                 { seen.push_back(Name(fan) + "=" + std::to_string(fan.Get_fanCount())); },
                 .on_state = [this](Fans& fan, LiveState state)
                 { seen.push_back(Name(fan) + " " + bmcbus::Name(state)); }}};
    }
    static std::string Name(Fans& fan) { return fan.Path().substr(std::string(root).size() + 1); }
    static Lines Names(const bmcbus::LiveSet<Fans>& set)
    {
        Lines names;
        for (Fans& fan : set)
        {
            names.push_back(Name(fan));
        }
        return names;
    }

    std::unique_ptr<kit::FakeMapper> mapper;
};

TEST_F(LiveSets, ComeAndGo)
{
    StartTrays({"b", "a"});
    const bmcbus::LiveSet<Fans> set = FollowSet();
    ASSERT_TRUE(Until([&] { return set.size() == 2; }));
    EXPECT_THAT(Names(set), ElementsAre("a", "b"));
    EXPECT_THAT(Seen(), UnorderedElementsAre("+a", "+b"));
    EXPECT_EQ(set.Find(Path("a"))->Get_fanCount(), 1);
    EXPECT_EQ(set.Find(root), nullptr);

    Plug("new");
    ASSERT_TRUE(Until([&] { return set.size() == 3; }));
    fans->RemoveObject(Path("a"));
    ASSERT_TRUE(Until([&] { return set.size() == 2; }));
    fans->ObjectAt(Path("new")).Set("fanCount", uint8_t{9});
    Deliver();
    EXPECT_THAT(Seen(), ElementsAre("+new", "-a", "new=9"));
    EXPECT_EQ(set.State(Path("a")), LiveState::Absent);
}

TEST_F(LiveSets, SurviveARestart)
{
    StartTrays({"a", "b"});
    const bmcbus::LiveSet<Fans> set = FollowSet();
    ASSERT_TRUE(Until([&] { return set.size() == 2; }));
    Seen();
    fans.reset();
    ASSERT_TRUE(Until([&] { return set.State(Path("b")) == LiveState::Lost; }));
    EXPECT_EQ(set.size(), 2U);
    EXPECT_THAT(Seen(), UnorderedElementsAre("a Lost", "b Lost"));
    StartTrays({"b", "c"});
    ASSERT_TRUE(Until(
        [&]
        {
            return set.State(Path("b")) == LiveState::Live && set.Find(Path("c")) != nullptr &&
                   set.size() == 2;
        }));
    EXPECT_THAT(Names(set), ElementsAre("b", "c"));
}

TEST_F(LiveSets, FoundByTheMapper)
{
    mapper = std::make_unique<kit::FakeMapper>();
    StartTrays({"a"}, false);
    const bmcbus::LiveSet<Fans> set = FollowSet("");
    ASSERT_TRUE(Until([&] { return set.size() == 1; }));
    // Another service, which only the mapper can name.
    kit::FakeService other("com.example.Others", Path("z"), {fanInterface});
    mapper->Add(Path("z"), "com.example.Others", {fanInterface});
    other.EmitRaw("/", "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
                  {kit::Path{Path("z")},
                   Value::Dictionary("s", "a{sv}", {{fanInterface, kit::AsPropertyMap({})}})});
    ASSERT_TRUE(Until([&] { return set.size() == 2; }));
    EXPECT_THAT(Names(set), ElementsAre("a", "z"));
}

TEST_F(LiveSets, WithoutManagerAndWithoutAnything)
{
    mapper = std::make_unique<kit::FakeMapper>();
    StartTrays({"a"}, false);
    const bmcbus::LiveSet<Fans> set = FollowSet();
    ASSERT_TRUE(Until([&] { return set.size() == 1; })) << "the mapper knows";
    const bmcbus::LiveSet<Fans> empty(connection, "/com/example/none", {.service = fanService});
    Deliver();
    EXPECT_TRUE(empty.empty());
    // A manager below the path used to be believed only what it announced.
    mapper.reset();
    fans.reset();
    StartTrays({"a"});
    const bmcbus::LiveSet<Fans> all(connection, "/", {.service = fanService});
    Deliver();
    Plug("b");
    EXPECT_TRUE(Until([&] { return all.Find(Path("a")) != nullptr; }));
}

TEST_F(LiveSets, EndInTheirOwnCallbacks)
{
    StartTrays({"a", "b", "c"});
    std::optional<bmcbus::LiveSet<Fans>> set;
    int calls = 0;
    set.emplace(connection, root,
                bmcbus::LiveSetOptions<Fans>{.service = fanService,
                                             .on_add = [&](Fans& fan)
                                             {
                                                 ++calls;
                                                 set.reset();
                                                 EXPECT_EQ(fan.Get_fanCount(), 1);
                                             }});
    ASSERT_TRUE(Until([&] { return calls > 0; }));
    Deliver();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(bmcbus::ReportLive(connection).rules, 0U);
}

// Its on_remove used to run all the same.
TEST_F(LiveSets, EndedByAnotherCallbackOfTheMessage)
{
    StartTrays({"a"});
    std::optional<bmcbus::LiveSet<Fans>> set = FollowSet();
    ASSERT_TRUE(Until([&] { return set->size() == 1; }));
    const auto end = [&](Fans&, LiveState state)
    {
        if (state == LiveState::Lost)
        {
            set.reset();
        }
    };
    const bmcbus::Live<Fans> live(connection, Path("a"), {.service = fanService, .on_state = end});
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    Seen();
    fans->RemoveObject(Path("a"));
    ASSERT_TRUE(Until([&] { return !set; }));
    EXPECT_THAT(Seen(), IsEmpty());
}

// The last handle used to be freed, and the connection's record with it, in the middle of the end.
TEST_F(LiveSets, OwnedHandlesEndWithTheirCallables)
{
    StartTrays({"a"});
    std::optional<bmcbus::LiveSet<Fans>> set;
    auto owned = std::make_unique<bmcbus::Live<Fans>>(Follow());
    set.emplace(connection, root,
                bmcbus::LiveSetOptions<Fans>{.service = fanService,
                                             .on_add = [&, held = std::move(owned)](Fans&)
                                             { set.reset(); }});
    EXPECT_TRUE(Until([&] { return !set; }));
    EXPECT_EQ(bmcbus::ReportLive(connection).objects.size(), 0U);
}

// A member used to stay with the last service that the mapper named, though that had gone.
TEST_F(LiveSets, OfTwoServicesTheOneThatIsThere)
{
    mapper = std::make_unique<kit::FakeMapper>();
    for (const char* gone : {"com.example.A", "com.example.Z"})
    {
        mapper->Add(Path("a"), gone, {fanInterface});
    }
    StartTrays({"a"}, false);
    const bmcbus::LiveSet<Fans> set = FollowSet("");
    ASSERT_TRUE(Until([&] { return set.size() == 1; }));
    kit::FakeService other("com.example.Z", Path("a"), {fanInterface});
    other.Manage("/");
    fans->Crash();
    EXPECT_TRUE(Until([&] { return set.Report(Path("a"))->service == "com.example.Z"; }));
    EXPECT_TRUE(Until([&] { return set.State(Path("a")) == LiveState::Live; }));
    fans->Start();
    other.RemoveObject(Path("a"));
    ASSERT_TRUE(Until([&] { return set.empty(); }));
    EXPECT_TRUE(Until([&] { return set.size() == 1; }));
}

// New objects used to be taken for those of its other name.
TEST_F(LiveSets, OfAnOwnerWithTwoNames)
{
    StartTrays({"a"});
    fans->RequestName("com.example.Alias");
    const bmcbus::Live<Fans> live = Follow("com.example.Alias", Path("a"));
    const bmcbus::LiveSet<Fans> set = FollowSet();
    ASSERT_TRUE(Becomes(live, LiveState::Live));
    ASSERT_TRUE(Until([&] { return set.size() == 1; }));
    Deliver();
    Plug("b");
    EXPECT_TRUE(Until([&] { return set.size() == 2; }));
}

class LiveSignals : public LiveTest
{
  protected:
    bmcbus::LiveSignal<FanSignal> FollowSignal(const std::string& service = fanService)
    {
        return {
            connection,
            fanPath,
            {.service = service,
             .on_signal = [this](FanSignal& now)
             { seen.push_back(std::to_string(now.Get_fanCount())); },
             .on_missed = [this](FanSignal&) { seen.emplace_back("missed"); },
             .on_state = [this](FanSignal&, LiveState state) { seen.emplace_back(Name(state)); }}};
    }
};

TEST_F(LiveSignals, OfTheOwnerAlone)
{
    StartFans();
    const bmcbus::LiveSignal<FanSignal> signal = FollowSignal();
    ASSERT_TRUE(Until([&] { return signal.State() == LiveState::Live; }));
    kit::FakeService stranger("com.example.Stranger", fanPath, {fanInterface});
    stranger->Emit("notifyFanReportingData", uint8_t{66}, twoFans);
    (*fans)->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    Deliver();
    EXPECT_EQ(signal->Get_fanCount(), 3);
    EXPECT_THAT(Seen(), ElementsAre("Live", "3"));
    EXPECT_EQ(signal.Report().strangers, 1U);
    // Other types than the description's: all of the last signal stays.
    (*fans)->EmitRaw(fanInterface, "notifyFanReportingData", {uint8_t{4}, "none"});
    Deliver();
    EXPECT_EQ(signal->Get_fanCount(), 3);
    EXPECT_THAT(Seen(), ElementsAre("missed"));

    fans->Crash();
    ASSERT_TRUE(Until([&] { return signal.State() == LiveState::Lost; }));
    fans->Start();
    ASSERT_TRUE(Until([&] { return signal.State() == LiveState::Live; }));
    (*fans)->Emit("notifyFanReportingData", uint8_t{5}, twoFans);
    Deliver();
    EXPECT_THAT(Seen(), ElementsAre("missed", "Lost", "Live", "5"));
    EXPECT_EQ(signal.Report().missed, 2U);
}

TEST_F(LiveSignals, FoundByTheMapper)
{
    kit::FakeMapper mapper;
    mapper.Add(fanPath, fanService, {fanInterface});
    const bmcbus::LiveSignal<FanSignal> signal = FollowSignal("");
    StartFans();
    EXPECT_TRUE(Until([&] { return signal.State() == LiveState::Live; }));
}

} // namespace
