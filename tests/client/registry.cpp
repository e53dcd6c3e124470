// How objects are made, found and destroyed.

#include "fixture.hpp"

#include <com/tamm/bmc/debug/dataorigin/client_cache.hpp>
#include <com/tamm/bmc/Thermal/SystemInformation/client_cache.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <concepts>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

template <class... Arguments>
concept Constructible = std::constructible_from<Fan, Arguments...>;

template <class... Arguments>
concept Creatable = requires(Arguments... arguments)
{
    Fan::Create(arguments...);
};

using Text = const char*;
using Callback = Fan::Callback;

// Every combination that is there, and none that is not.
static_assert(Constructible<Text> && Constructible<Text, Callback> &&
              Constructible<Text, Callback, void*> && Constructible<Text, Text> &&
              Constructible<Text, std::string, Callback> &&
              Constructible<Text, Text, Callback, void*> && Constructible<Text, bool> &&
              Constructible<Text, Callback, bool> && Constructible<Text, Callback, void*, bool> &&
              Constructible<Text, Text, bool> && Constructible<Text, Text, Callback, bool> &&
              Constructible<Text, Text, Callback, void*, bool>);
static_assert(Creatable<Text> && Creatable<Text, Callback, void*> && Creatable<Text, Text> &&
              Creatable<Text, Text, Callback, void*> && Creatable<Text, bool> &&
              Creatable<Text, Callback, void*, bool> && Creatable<Text, Text, bool> &&
              Creatable<Text, Text, Callback, void*, bool>);
// A callback alone must not become the flag, nor must a null service.
static_assert(!Creatable<Text, Callback> && !Creatable<Text, std::string, Callback> &&
              !Creatable<Text, Text, Callback> && !Creatable<Text, std::nullptr_t>);
static_assert(!Creatable<Text, decltype([](Fan*, void*) {})>);
// Only a bool is a bool.
template <class... Arguments>
constexpr bool means = Constructible<Text, Arguments...> || Creatable<Text, Arguments...>;
using App = std::string*;
static_assert(Creatable<Text, Callback, App> && Creatable<Text, Text, Callback, App, bool>);
static_assert(!means<App> && !means<int> && !means<const char8_t*> && !means<std::true_type>);
static_assert(!means<Text, App> && !means<Text, int> && !means<std::string, double>);
static_assert(!means<Callback, const int*> && !means<Text, Callback, const int*>);
static_assert(!means<Callback, App, App> && !means<Text, Callback, App, int>);
static_assert(!means<void (*)(int)> && !means<Text, void (*)(int)>);
static_assert(Creatable<Text, std::nullptr_t, std::nullptr_t>);
static_assert(!std::copy_constructible<Fan> && !std::movable<Fan> &&
              !std::copy_constructible<FanSignal> && !std::copy_constructible<FanEdge>);
static_assert(!std::is_polymorphic_v<Fan> && !std::is_polymorphic_v<FanSignal>);

class Construction : public ClientTest
{
  protected:
    // Which way a constructor took: the calls that it led to, and whether it waited for them.
    struct Way
    {
        size_t lookups;
        size_t reads;
        bool waited;
        bool operator==(const Way&) const = default;
    };

    template <class... Arguments>
    Way Constructed(Arguments... arguments)
    {
        mapper.ClearCalls();
        fans.ClearCalls();
        Fan fan(arguments...);
        const bool waited = fan.Ready();
        EXPECT_TRUE(kit::Dispatch(connection, [&] { return fan.Ready(); }));
        calls = 0;
        Change({});
        return {mapper.Calls("GetObject").size(), fans.Calls("GetAll").size(), waited};
    }

    static constexpr Way asks{1, 1, true};
    static constexpr Way knows{0, 1, true};
    static constexpr Way asksLater{1, 1, false};
    static constexpr Way knowsLater{0, 1, false};
    size_t calls = 0;
};

TEST_F(Construction, SaysThatArgumentsAreSwapped)
{
    const auto swapped = [](const std::string& given, const std::string& takes)
    {
        const std::string format = "swapped arguments [%s], [%s]: %s::%s takes (%s)";
        return Error("FanReporting", format, "swapped arguments " + given + ": " + takes);
    };
    const Fan cached(fanService, fanPath, true);
    EXPECT_THAT(LoggedErrors(),
                Contains(swapped("[com.example.Fans], [/com/example/fans]",
                                 "ClientCache::FanReporting takes (path, service)")));
    test::ClearLog();
    const FanEdge direct(fanPath, fanService);
    EXPECT_THAT(LoggedErrors(),
                ElementsAre(swapped("[/com/example/fans], [com.example.Fans]",
                                    "ClientEdge::FanReporting takes (service, path)")));
}

TEST_F(Construction, EveryConstructorMeansWhatItSays)
{
    const char* const path = fanPath.c_str();
    const char* const service = fanService.c_str();
    const auto withUserData = [&](Way way)
    {
        EXPECT_EQ(calls, 1U);
        return way;
    };
    static size_t nulls;
    const Callback countNulls = [](Fan*, void* user_data)
    { nulls += user_data == nullptr ? 1 : 0; };
    EXPECT_EQ(Constructed(path), asks);
    EXPECT_EQ(Constructed(path, countNulls), asks);
    EXPECT_EQ(withUserData(Constructed(path, Count<Fan>, &calls)), asks);
    EXPECT_EQ(Constructed(path, service), knows);
    EXPECT_EQ(Constructed(path, std::string(service)), knows);
    EXPECT_EQ(Constructed(path, service, countNulls), knows);
    EXPECT_EQ(withUserData(Constructed(path, service, Count<Fan>, &calls)), knows);
    EXPECT_EQ(Constructed(path, true), asksLater);
    EXPECT_EQ(Constructed(path, countNulls, true), asksLater);
    EXPECT_EQ(withUserData(Constructed(path, Count<Fan>, &calls, true)), asksLater);
    EXPECT_EQ(Constructed(path, service, true), knowsLater);
    EXPECT_EQ(Constructed(path, service, countNulls, true), knowsLater);
    EXPECT_EQ(withUserData(Constructed(path, service, Count<Fan>, &calls, true)), knowsLater);
    EXPECT_EQ(Constructed(path, false), asks);
    EXPECT_EQ(Constructed(path, std::string(), Callback(), nullptr, false), asks);
    EXPECT_EQ(nulls, 4U);
}

TEST_F(Construction, LiteralsAreServices)
{
    Fan* const created = Fan::Create("/com/example/fans", "com.example.Fans");
    EXPECT_TRUE(created->Ready());
    Fan constructed("/com/example/fans", "com.example.Fans");
    EXPECT_TRUE(constructed.Ready());
    EXPECT_THAT(mapper.Calls(), IsEmpty());
}

TEST_F(Construction, InstallsThreeRulesAndTakesThemAway)
{
    const auto reached = [&](Fan& fan)
    {
        const uint32_t before = fan.SignalCount();
        Change({});
        Add({});
        Remove({});
        return fan.SignalCount() - before;
    };
    size_t counted = 0;
    Fan* const fan = Fan::Create(fanPath, fanService, Count, &counted);
    EXPECT_EQ(reached(*fan), 3U);
    // The same members elsewhere are not for it.
    fans.EmitRaw(fanPath, "com.example.Other", "PropertiesChanged",
                 {fanInterface, kit::AsPropertyMap({}), std::vector<std::string>()});
    fans.EmitRaw(fanPath + "/sub", "org.freedesktop.DBus.Properties", "PropertiesChanged",
                 {fanInterface, kit::AsPropertyMap({}), std::vector<std::string>()});
    Deliver();
    EXPECT_EQ(counted, 3U);
    Fan other(fanPath, fanService);
    Fan::Release(fan);
    EXPECT_EQ(reached(other), 3U);
    EXPECT_EQ(counted, 3U);
}

TEST_F(Construction, DatacacheIsASwitchForCallers)
{
    ClientCache::com::tamm::bmc::Thermal::SystemInformation system("/x", fanService);
    ClientCache::com::tamm::bmc::debug::dataorigin origin("/x", fanService);
    EXPECT_TRUE(system.useDatacache());
    EXPECT_TRUE(origin.useDatacache());
    system.useDatacache(false);
    EXPECT_FALSE(system.useDatacache());
    system.useDatacache(true);
    EXPECT_TRUE(system.useDatacache());
    EXPECT_FALSE(system.Ready());
}

// --- the registry -------------------------------------------------------------------------------

template <class Class>
class Registry : public ClientTest
{
  protected:
    void TearDown() override
    {
        Class::Cleanup();
        EXPECT_TRUE(Class::active.empty());
    }
};

using Registered = testing::Types<Fan, FanSignal>;
TYPED_TEST_SUITE(Registry, Registered);

TYPED_TEST(Registry, FindsTheFirstOfAPath)
{
    TypeParam* const first = TypeParam::Create("/a");
    TypeParam* const second = TypeParam::Create("/a");
    EXPECT_NE(first, second);
    EXPECT_EQ(first->Path(), "/a");
    EXPECT_EQ(TypeParam::Lookup("/a"), first);
    TypeParam::Release(first);
    EXPECT_EQ(TypeParam::Lookup("/a"), second);
    TypeParam::Release(second);
    EXPECT_EQ(TypeParam::Lookup("/a"), nullptr);
}

TYPED_TEST(Registry, ComparesWholePaths)
{
    using namespace std::string_literals;
    TypeParam* const object = TypeParam::Create("/a/b");
    for (const std::string& other : {"/a"s, "/a/b/"s, "/A/b"s, ""s, "/a/b\0"s, "/a/bc"s})
    {
        EXPECT_EQ(TypeParam::Lookup(other), nullptr) << other;
    }
    EXPECT_EQ(TypeParam::Lookup("/a/b"), object);
    TypeParam* const empty = TypeParam::Create("");
    EXPECT_EQ(TypeParam::Lookup(""), empty);
}

TYPED_TEST(Registry, SavesAndUnsaves)
{
    TypeParam* const a = TypeParam::Create("/a");
    TypeParam* const b = TypeParam::Create("/b");
    TypeParam* const c = TypeParam::Create("/c");
    TypeParam::Save(a);
    EXPECT_THAT(TypeParam::active, ElementsAre(a, b, c, a));
    TypeParam::Unsave(a);
    EXPECT_THAT(TypeParam::active, ElementsAre(b, c, a));
    TypeParam own("/own");
    TypeParam::Unsave(&own);
    TypeParam::Unsave(nullptr);
    EXPECT_THAT(TypeParam::active, ElementsAre(b, c, a));
    TypeParam::Save(nullptr);
    EXPECT_EQ(TypeParam::Lookup("/none"), nullptr);
    TypeParam::Release(nullptr);
    EXPECT_THAT(TypeParam::active, ElementsAre(b, c, a));
    TypeParam::Save(nullptr);
    TypeParam::Release(new TypeParam("/unregistered"));
    TypeParam::Cleanup();
    EXPECT_EQ(TypeParam::Lookup("/b"), nullptr);
    TypeParam::Cleanup();
}

TYPED_TEST(Registry, ObjectsMayBeReleasedInAForkedChild)
{
    TypeParam* const object = TypeParam::Create(fanPath);
    TypeParam::Create(fanPath);
    const pid_t child = fork();
    if (child == 0)
    {
        TypeParam::Release(object);
        TypeParam::Cleanup();
        _exit(TypeParam::active.empty() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    // The parent's subscriptions are still there.
    this->Change({});
    this->fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    this->Deliver();
    EXPECT_EQ(object->SignalCount(), 1U);
}

} // namespace
