// Change callbacks, and objects that go away while they are wanted.

#include "fixture.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <new>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// What callbacks did, in order; and what else they are to do.
struct Journal
{
    std::vector<std::string> entries;
    std::function<void(Fan*)> act = [](Fan*) {};
};

struct Entry
{
    Journal* journal;
    std::string name;
};

void Write(Fan* /*fan*/, void* entry)
{
    const auto& own = *static_cast<Entry*>(entry);
    own.journal->entries.push_back(own.name);
}

void Act(Fan* fan, void* journal)
{
    static_cast<Journal*>(journal)->act(fan);
}

void Throw(Fan* /*fan*/, void* /*user_data*/)
{
    throw std::runtime_error("from a callback");
}

class Callbacks : public ClientTest
{
  protected:
    Journal journal;
    Entry one{&journal, "one"};
    Entry two{&journal, "two"};
};

TEST_F(Callbacks, RunInTheOrderAddedOnceForEverySignal)
{
    Fan fan(fanPath, fanService, Write, &one);
    fan.AddCallback(Write, &two);
    fan.AddCallback(nullptr, &one);
    fan.AddCallback(nullptr);
    fan.AddCallback(Write, &one);
    Change({{"fanCount", uint8_t{1}}});
    EXPECT_THAT(journal.entries, ElementsAre("one", "two", "one"));
    Add({});
    Remove({});
    EXPECT_EQ(journal.entries.size(), 9U);
    EXPECT_EQ(fan.SignalCount(), 3U);
}

TEST_F(Callbacks, AddedMeanwhileRunFromTheNextSignalOn)
{
    Fan fan(fanPath, fanService, Act, &journal);
    journal.act = [&](Fan* own) { own->AddCallback(Write, &one); };
    Change({});
    EXPECT_THAT(journal.entries, IsEmpty());
    journal.act = [](Fan*) {};
    Change({});
    EXPECT_THAT(journal.entries, ElementsAre("one"));
}

TEST_F(Callbacks, ThatThrowDoNotStopTheOthers)
{
    Fan fan(fanPath, fanService, Throw);
    fan.AddCallback(Write, &one);
    fan.AddCallback(Throw);
    fan.AddCallback(Write, &two);
    test::ClearLog();
    Change({});
    Add({});
    Remove({});
    EXPECT_THAT(journal.entries, ElementsAre("one", "two", "one", "two", "one", "two"));
    EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("ObjectCallbackChanged", "from a callback"),
                                            Exception("ObjectCallbackChanged", "from a callback"),
                                            Exception("ObjectCallbackAdded", "from a callback"),
                                            Exception("ObjectCallbackAdded", "from a callback"),
                                            Exception("ObjectCallbackRemoved", "from a callback"),
                                            Exception("ObjectCallbackRemoved", "from a callback")));
    EXPECT_EQ(Logged().back(), Trace("ObjectCallbackRemoved", "leave FanReporting"));
}

TEST_F(Callbacks, MayReleaseTheirOwnObject)
{
    for (const auto& signal :
         std::vector<std::function<void()>>{[&] { Change({}); }, [&] { Add({}); },
                                            [&] { Remove({}); }})
    {
        Fan* const fan = Fan::Create(fanPath, fanService, Write, &one);
        fan->AddCallback(Act, &journal);
        fan->AddCallback(Write, &two);
        journal.act = Fan::Release;
        test::ClearLog();
        signal();
        EXPECT_EQ(Fan::Lookup(fanPath), nullptr);
        EXPECT_THAT(Logged().back(), testing::EndsWith("leave FanReporting"));
        signal();
    }
    EXPECT_THAT(journal.entries, ElementsAre("one", "one", "one")) << "the round ends";
}

TEST_F(Callbacks, MayReleaseAnotherObjectWhoseTurnIsNext)
{
    // Whichever is first releases the other.
    Fan* const a = Fan::Create(fanPath, fanService, Act, &journal);
    Fan* const b = Fan::Create(fanPath, fanService, Act, &journal);
    size_t runs = 0;
    journal.act = [&](Fan* own)
    {
        ++runs;
        Fan::Release(own == a ? b : a);
    };
    Change({});
    EXPECT_EQ(runs, 1U);
    Fan* const left = Fan::Lookup(fanPath);
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(left->SignalCount(), 1U);
    journal.act = [](Fan*) {};
    Change({{"fanCount", uint8_t{6}}});
    EXPECT_EQ(left->Get_fanCount(), 6);
}

// A handler called by hand from inside a callback: the object goes while two rounds are under way.
TEST_F(Callbacks, MayReleaseFromARoundWithinARound)
{
    sd_bus_message* raw = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(connection, &raw, fanPath.c_str(), "com.example.I",
                                        "InterfacesRemoved"),
              0);
    ASSERT_GE(sd_bus_message_append(raw, "oas", fanPath.c_str(), 0), 0);
    ASSERT_GE(sd_bus_message_seal(raw, 1, 0), 0);
    bmcbus::Message message(raw, std::false_type());
    journal.act = [&](Fan* own)
    {
        bmcbus::Message& sent = message; // what follows replaces this very function
        journal.act = Fan::Release;
        own->ObjectCallbackRemoved(sent);
    };
    Fan::Create(fanPath, fanService, Act, &journal)->AddCallback(Write, &one);
    Change({});
    EXPECT_EQ(Fan::Lookup(fanPath), nullptr);
    EXPECT_THAT(journal.entries, IsEmpty());
}

TEST_F(Callbacks, OfASubscriber)
{
    static size_t runs;
    runs = 0;
    FanSignal* const signal = FanSignal::Create(fanPath, nullptr, &runs);
    signal->AddCallback([](FanSignal*, void*) { throw std::runtime_error("from a callback"); });
    signal->AddCallback(Count, &runs);
    const auto emit = [&]
    {
        fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
        Deliver();
    };
    emit();
    EXPECT_EQ(runs, 1U);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Exception("ObjectCallback", "from a callback")));
    signal->AddCallback([](FanSignal*, void*) { FanSignal::Cleanup(); }, nullptr);
    signal->AddCallback(Count, &runs);
    emit();
    EXPECT_EQ(runs, 2U);
    EXPECT_EQ(FanSignal::Lookup(fanPath), nullptr);
    emit();
    EXPECT_EQ(runs, 2U);
}

// --- released with a request under way ----------------------------------------------------------

class Pending : public ClientTest
{
};

TEST_F(Pending, LookupOrReadIsCancelledByRelease)
{
    mapper.On("GetObject").Hold();
    fans.On("GetAll").Hold();
    Fan* const looking = Fan::Create(fanPath, true);
    Fan* const reading = Fan::Create(fanPath, fanService, true);
    reading->ServiceIsSet();
    ASSERT_TRUE(mapper.WaitForHeld() && fans.WaitForHeld(2));
    Fan::Release(looking);
    Fan::Release(reading);
    test::ClearLog();
    mapper.Release();
    fans.Release();
    Deliver();
    EXPECT_THAT(test::Log(), IsEmpty()) << test::Describe(test::Log());
}

TEST_F(Pending, AnswersDoNotReachANewObjectAtTheOldAddress)
{
    mapper.On("GetObject").Hold();
    alignas(Fan) std::byte place[sizeof(Fan)];
    Fan* fan = new (place) Fan(fanPath, true);
    ASSERT_TRUE(mapper.WaitForHeld());
    fan->~Fan();
    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({})});
    fan = new (place) Fan(fanPath, fanService);
    test::ClearLog();
    mapper.Release();
    Deliver();
    EXPECT_FALSE(fan->Ready());
    EXPECT_THAT(Logged(), IsEmpty());

    fans.On("GetAll").Once().Hold();
    fan->~Fan();
    fan = new (place) Fan(fanPath, fanService, true);
    ASSERT_TRUE(fans.WaitForHeld());
    fan->~Fan();
    fan = new (place) Fan("/elsewhere", fanService);
    fans.Release();
    Deliver();
    EXPECT_FALSE(fan->Ready());
    EXPECT_EQ(fan->Get_fanCount(), 0);
    fan->~Fan();
}

TEST_F(Pending, TheConnectionIsClosedHere)
{
    fans.On("GetAll").NoReply();
    Fan reading(fanPath, fanService, true);
    sd_bus_close(connection);
    EXPECT_FALSE(reading.Ready());
    EXPECT_EQ(test::CountLog(9, 127, "GetPropertiesAsyncCallback", "success=0"), 0U);
}

} // namespace
