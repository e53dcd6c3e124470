// Tasks: who owns the frame, and what becomes of it when it ends in odd places.

#include "bus_loops.hpp"
#include "fixture.hpp"

namespace
{

using namespace test;

class Tasks : public testing::Test, public Fans
{
  protected:
    Tasks() { ClearLog(); }

    bmcbus::BusRef connection = Connect();
    ProcessLoop loop{connection.get()};
};

// Counts how many frames hold one.
struct Guest
{
    explicit Guest(int& frames) : count(frames) { ++count; }
    Guest(const Guest&) = delete;
    Guest& operator=(const Guest&) = delete;
    ~Guest() { --count; }
    int& count;
};

bmcbus::Task<> Inner(sd_bus* on, int& frames, std::function<void()> then)
{
    const Guest guest(frames);
    static_cast<void>(co_await Update(on).Async<int32_t>());
    then();
    static_cast<void>(co_await Update(on).Async<int32_t>());
    ADD_FAILURE() << "went on after it was given up";
}

bmcbus::Task<> Outer(sd_bus* on, int& frames, std::function<void()> then)
{
    const Guest guest(frames);
    co_await Inner(on, frames, std::move(then));
    ADD_FAILURE() << "went on after it was given up";
}

TEST_F(Tasks, MayBeDestroyedFromWithin)
{
    int frames = 0;
    bmcbus::Task<> task;
    bool destroyed = false;
    task = Outer(connection.get(), frames,
                 [&]
                 {
                     task.Cancel();
                     destroyed = true;
                     EXPECT_EQ(frames, 2);
                 });
    EXPECT_EQ(frames, 2);
    ASSERT_TRUE(loop.Run([&] { return destroyed; }));
    EXPECT_EQ(frames, 0);
    EXPECT_EQ(service_.Calls("updateFanPWMData").size(), 1);
}

bmcbus::Task<int> Throws(sd_bus* on)
{
    static_cast<void>(co_await Update(on).Async<int32_t>());
    throw std::runtime_error("as the test wants it");
}

bmcbus::Task<std::string> Catches(sd_bus* on)
{
    try
    {
        co_await Throws(on);
    }
    catch (const std::exception& error)
    {
        co_return error.what();
    }
    co_return "nothing";
}

TEST_F(Tasks, PassOnWhatTheyThrow)
{
    bmcbus::Task<std::string> task = Catches(connection.get());
    ASSERT_TRUE(loop.Run([&] { return task.Done(); }));
    EXPECT_EQ(task.Get(), "as the test wants it");
    EXPECT_TRUE(Log(2).empty());
}

TEST_F(Tasks, LogWhatNobodyAwaits)
{
    Throws(connection.get()).Detach();
    ASSERT_TRUE(loop.Run([&] { return !Log(2).empty(); }));
    EXPECT_EQ(Log(2).front().text, "a task that nobody awaits threw: as the test wants it");
    EXPECT_EQ(Log(2).size(), 1);
}

bmcbus::Task<int> Ask(sd_bus* on)
{
    auto first = Update(on).Async<int32_t>();
    auto call = std::move(first);
    const Result<int32_t> moved = co_await first;
    const Result<int32_t> asked = co_await call;
    const Result<int32_t> again = co_await call;
    EXPECT_EQ(moved.error().kind, CallFailure::Refused);
    EXPECT_EQ(again.error().kind, CallFailure::Refused);
    co_return *asked;
}

bmcbus::Task<int> Follow(bmcbus::Task<int>& other)
{
    const int value = co_await other;
    co_return value;
}

// Either was used after it had gone, and what there was not was got.
TEST_F(Tasks, GoBeforeThoseThatTheyWaitForAndAfterThem)
{
    bmcbus::Task<int> inner = Ask(connection.get());
    EXPECT_THROW(inner.Get(), std::bad_optional_access);
    static_cast<void>(Follow(inner));
    ASSERT_TRUE(loop.Run([&] { return inner.Done(); }));
    EXPECT_EQ(inner.Get(), 0);
    EXPECT_THROW(inner.Get(), std::bad_optional_access);
    inner = Ask(connection.get());
    bmcbus::Task<int> outer = Follow(inner);
    inner.Cancel();
    outer.Cancel();
    outer = Follow(inner);
    EXPECT_THROW(outer.Get(), std::bad_optional_access);
}

bmcbus::Task<> Retry(sd_bus* on, int& failures)
{
    while (failures < 10'000)
    {
        const auto result = co_await Update(on).Async<int32_t>();
        failures += result ? 0 : 1;
    }
}

// Calls that end at once must not pile up on the stack.
TEST_F(Tasks, GoOnInPlaceWhenNothingIsSent)
{
    sd_bus_close(connection.get());
    int failures = 0;
    const bmcbus::Task<> task = Retry(connection.get(), failures);
    EXPECT_TRUE(task.Done());
    EXPECT_EQ(failures, 10'000);
}

bmcbus::Task<> RetryInACondition(sd_bus* on, int& failures)
{
    while (failures < 3 && !co_await Update(on).Async<int32_t>())
    {
        ++failures;
    }
}

// g++ 12.2 makes a frame that cannot be resumed: that is said, not left to chance.
TEST_F(Tasks, AreNotStartedInAWrongFrame)
{
    const auto run = [&]
    {
        sd_bus_close(connection.get());
        int failures = 0;
        const bmcbus::Task<> task = RetryInACondition(connection.get(), failures);
        std::_Exit(failures == 3 ? 0 : 1);
    };
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
    EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), "");
#else
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
#endif
}

} // namespace
