// Calls with a completion, in every kind of loop.

#include "bus_loops.hpp"
#include "fixture.hpp"

namespace
{

using namespace test;

template <class Loop>
class Calls : public testing::Test, public Fans
{
  protected:
    Calls() { ClearLog(); }

    bool RunUntil(const Condition& done) { return loop.Run(done); }
    // Lets everything happen that was on its way.
    void Settle()
    {
        bool answered = false;
        const bmcbus::Call ping =
            Request(connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                    "org.freedesktop.DBus.Peer", "Ping")
                .Async([&](const Result<void>&) { answered = true; });
        EXPECT_TRUE(RunUntil([&] { return answered; }));
    }
    bmcbus::Call Start(Told& told, const bmcbus::CallOptions& options = {})
    {
        return Update(connection.get()).template Async<int32_t>(told.Listener(), options);
    }

    // Calls that the service does not answer yet.
    std::vector<bmcbus::Call> StartAll(std::vector<Told>& told)
    {
        service_.On("updateFanPWMData").Hold();
        std::vector<bmcbus::Call> calls;
        for (Told& each : told)
        {
            calls.push_back(Start(each));
        }
        return calls;
    }

    bmcbus::BusRef connection = Connect();
    Loop loop{connection.get()};
};

TYPED_TEST_SUITE(Calls, BusLoops);

TYPED_TEST(Calls, CompleteOnceWithTheValue)
{
    this->service_.On("updateFanPWMData").Reply({int32_t{42}});
    Told told;
    const bmcbus::Call call = this->Start(told);
    EXPECT_TRUE(call.Pending());
    EXPECT_EQ(told.times, 0);
    ASSERT_TRUE(this->RunUntil([&] { return told.Once(); }));
    EXPECT_EQ(*told.result, 42);
    EXPECT_FALSE(call.Pending());
    this->Settle();
    EXPECT_TRUE(told.Once());
}

TYPED_TEST(Calls, EndWithTheErrorAsItCame)
{
    this->service_.On("updateFanPWMData").ReplyError("com.example.Error.Stuck", "fan 1 is stuck");
    Told told;
    const bmcbus::Call call = this->Start(told);
    ASSERT_TRUE(this->RunUntil([&] { return told.Once(); }));
    EXPECT_EQ(told.Kind(), CallFailure::Remote);
    EXPECT_EQ(told.Name(), "com.example.Error.Stuck");
    EXPECT_EQ(told.result->error().message, "fan 1 is stuck");
}

TYPED_TEST(Calls, TellAVanishedPeerFromATimeout)
{
    this->service_.On("updateFanPWMData").Hold();
    Told late;
    Told vanished;
    const bmcbus::CallDeadline deadline(30ms);
    const bmcbus::Call first = this->Start(late, {.deadline = deadline});
    const bmcbus::Call second = this->Start(vanished, {.timeout = 1min});
    ASSERT_TRUE(this->RunUntil([&] { return late.Once(); }));
    EXPECT_TRUE(deadline.Passed());
    EXPECT_EQ(late.Kind(), CallFailure::Timeout);
    EXPECT_EQ(late.Name(), bmcbus::error_name::timeout);
    EXPECT_EQ(vanished.times, 0);
    ASSERT_TRUE(this->service_.WaitForHeld(2));
    this->service_.Crash();
    ASSERT_TRUE(this->RunUntil([&] { return vanished.Once(); }));
    EXPECT_EQ(vanished.Kind(), CallFailure::Remote);
    EXPECT_EQ(vanished.Name(), "org.freedesktop.DBus.Error.NoReply");
}

// A loop that waited for the descriptor went on without asking for room.
TYPED_TEST(Calls, LargerThanTheSocketAreSentToTheirEnd)
{
    this->Settle();
    const std::string large(20'000'000, 'x');
    Told told;
    bmcbus::Call call;
    ASSERT_TRUE(this->RunUntil(
        [&]
        {
            if (!call && !told.Once())
            {
                call = Request(this->connection.get(), "org.freedesktop.DBus", "/",
                               "org.freedesktop.DBus", "Nothing")
                           .With(large)
                           .template Async<int32_t>(told.Listener(), {.timeout = 10s});
            }
            return told.Once();
        }));
    EXPECT_EQ(told.Kind(), CallFailure::Remote);
}

TYPED_TEST(Calls, LeaveTheLoopItsTurnsWhileMessagesKeepComing)
{
    constexpr int many = 2000;
    int heard = 0;
    sd_bus* const on = this->connection.get();
    sd_bus_slot* slot = nullptr;
    sd_bus_add_match(
        on, &slot, "type='signal',interface='com.example.Again'",
        [](sd_bus_message* message, void* count, sd_bus_error*)
        {
            const bmcbus::CallDeadline busy(200us);
            while (!busy.Passed())
            {
            }
            return ++*static_cast<int*>(count) < many
                       ? sd_bus_emit_signal(sd_bus_message_get_bus(message), "/",
                                            "com.example.Again", "Again", "")
                       : 0;
        },
        &heard);
    const bmcbus::Slot match(slot);
    for (int i = 0; i < 200; ++i)
    {
        sd_bus_emit_signal(on, "/", "com.example.Again", "Again", "");
    }
    ASSERT_TRUE(this->RunUntil([&] { return heard > 10; }));
    EXPECT_LT(heard, many);
}

TYPED_TEST(Calls, NameBothSignaturesOfAWrongReply)
{
    this->service_.On("updateFanPWMData").Reply({"text"});
    Told told;
    const bmcbus::Call call = this->Start(told);
    ASSERT_TRUE(this->RunUntil([&] { return told.Once(); }));
    EXPECT_EQ(told.Kind(), CallFailure::ReplyTypes);
    EXPECT_EQ(told.result->error().message, "The reply has the types \"s\", not \"i\"");
}

TYPED_TEST(Calls, NeverCompleteOnceCancelled)
{
    this->service_.On("updateFanPWMData").Hold();
    Told cancelled;
    Told destroyed;
    Told replaced;
    Told detached;
    bmcbus::Call call = this->Start(cancelled);
    bmcbus::Call other = this->Start(replaced);
    other = {};
    {
        const bmcbus::Call dropped = this->Start(destroyed);
    }
    this->Start(detached).Detach();
    ASSERT_TRUE(this->RunUntil([&] { return this->service_.WaitForHeld(4, 0ms); }));
    call.Cancel();
    call.Cancel();
    EXPECT_FALSE(call.Pending());
    this->service_.Release();
    ASSERT_TRUE(this->RunUntil([&] { return detached.Once(); }));
    this->Settle();
    EXPECT_EQ(cancelled.times + destroyed.times + replaced.times, 0);
}

TYPED_TEST(Calls, FreeWhatACompletionHoldsInEveryCase)
{
    this->service_.On("updateFanPWMData").Once().Hold();
    const auto held = std::make_shared<int>(1);
    const auto hold = [held](const Result<int32_t>&) {};
    bmcbus::Call call = Update(this->connection.get()).template Async<int32_t>(hold);
    EXPECT_EQ(held.use_count(), 3);
    call.Cancel();
    EXPECT_EQ(held.use_count(), 2);
    call = Update(this->connection.get()).template Async<int32_t>(hold);
    ASSERT_TRUE(this->RunUntil([&] { return !call.Pending(); }));
    EXPECT_EQ(held.use_count(), 2);
}

TYPED_TEST(Calls, MayDoAnythingInACompletion)
{
    Told neighbour;
    Told next;
    bmcbus::Call second;
    bmcbus::Call third;
    bmcbus::Call first = Update(this->connection.get())
                             .template Async<int32_t>(
                                 [&](const Result<int32_t>&)
                                 {
                                     first.Cancel();
                                     second.Cancel();
                                     third = this->Start(next);
                                     throw std::runtime_error("as the test wants it");
                                 });
    second = this->Start(neighbour);
    ASSERT_TRUE(this->RunUntil([&] { return next.Once(); }));
    this->Settle();
    EXPECT_EQ(neighbour.times, 0);
    const std::vector<LogLine> lines = Log(2);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_EQ(lines.front().text, "the completion of a call threw: as the test wants it");
}

TYPED_TEST(Calls, AreAllToldOfADeadConnection)
{
    std::vector<Told> told(1000);
    const std::vector<bmcbus::Call> calls = this->StartAll(told);
    this->Settle();
    this->bus.Kill();
    this->RunUntil([&] { return EachOnce(told); }); // some loops end with the connection
    ASSERT_TRUE(EachOnce(told));
    EXPECT_EQ(told.front().Kind(), CallFailure::Disconnected);
    EXPECT_EQ(told.back().Name(), bmcbus::error_name::disconnected);
    EXPECT_FALSE(calls.front().Pending());
}

// Somebody closes the connection with calls pending; libsystemd itself tells nobody.
TYPED_TEST(Calls, AreAllToldWhenSomebodyClosesTheConnection)
{
    std::vector<Told> told(1000);
    const std::vector<bmcbus::Call> calls = this->StartAll(told);
    const bmcbus::Call closing =
        Request(this->connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus.Peer", "Ping")
            .Async([this](const Result<void>&) { sd_bus_close(this->connection.get()); });
    this->RunUntil([&] { return EachOnce(told); }); // some loops end with the connection
    if constexpr (std::is_same_v<TypeParam, ProcessLoop>)
    {
        this->connection.reset(); // as a program does when processing fails
    }
    EXPECT_TRUE(EachOnce(told));
    EXPECT_EQ(told.front().Kind(), CallFailure::Disconnected);
}

TYPED_TEST(Calls, AreAnsweredThoughABlockingCallReadTheReply)
{
    Told told;
    this->service_.On("updateFanPWMData").Once().Reply({int32_t{1}});
    const bmcbus::Call call = this->Start(told);
    EXPECT_EQ(Update(this->connection.get()).template Try<int32_t>(), 0);
    ASSERT_TRUE(this->RunUntil([&] { return told.Once(); }));
    EXPECT_EQ(*told.result, 1);
}

TYPED_TEST(Calls, GoOnInParallel)
{
    std::vector<Told> told(100);
    const std::vector<bmcbus::Call> calls = this->StartAll(told);
    ASSERT_TRUE(this->RunUntil([&] { return this->service_.WaitForHeld(100, 0ms); }));
    this->service_.Release();
    ASSERT_TRUE(this->RunUntil([&] { return EachOnce(told); }));
    EXPECT_TRUE(std::ranges::all_of(told, [](const Told& each) { return *each.result == 0; }));
}

TYPED_TEST(Calls, TimeOutInTheOrderOfTheirDeadlines)
{
    this->service_.On("updateFanPWMData").Hold();
    std::vector<int> order;
    std::vector<bmcbus::Call> calls;
    for (const int milliseconds : {40, 10, 30, 20, 60, 50})
    {
        calls.push_back(Update(this->connection.get())
                            .template Async<int32_t>([&order, milliseconds](const Result<int32_t>&)
                                                     { order.push_back(milliseconds); },
                                                     {.timeout = milliseconds * 1ms}));
    }
    ASSERT_TRUE(this->RunUntil([&] { return order.size() == 6; }));
    EXPECT_EQ(order, (std::vector<int>{10, 20, 30, 40, 50, 60}));
}

// What cannot be sent still completes, at once.
TYPED_TEST(Calls, AreRefusedByName)
{
    sd_bus* on = this->connection.get();
    std::vector<Result<void>> results;
    const auto keep = [&](const Result<void>& result) { results.push_back(result); };
    Request(on, "not a name", path, interface, "Do").Async(keep).Detach();
    Request(on, service, "no path", interface, "Do").Async(keep).Detach();
    Request(on, service, path, interface, "Do").With("\xff").Async(keep).Detach();
    Request(on, service, path, interface, "Do").Async(keep, {.timeout = -1s}).Detach();
    ASSERT_EQ(results.size(), 4);
    for (size_t i = 0; i < 3; ++i)
    {
        EXPECT_EQ(results[i].error().kind, CallFailure::Refused) << i;
        EXPECT_EQ(results[i].error().name, bmcbus::error_name::refused) << i;
    }
    EXPECT_EQ(results[3].error().kind, CallFailure::Timeout);
    this->Settle();
    EXPECT_TRUE(this->service_.Calls("Do").empty());
}

// Coroutines.

bmcbus::Task<int> UpdateTwice(sd_bus* on)
{
    const auto first = co_await Update(on).Async<int32_t>({.timeout = 20s});
    const auto second = co_await Update(on).Async<int32_t>();
    co_return first.value() + second.value();
}

bmcbus::Task<> Sum(sd_bus* on, int& sum)
{
    sum = co_await UpdateTwice(on);
    const auto [a, b, c] = co_await bmcbus::All(Update(on).Async<int32_t>(),
                                                Update(on).Async<std::string>({.timeout = 10s}),
                                                Request(on, "", path, interface, "x").Async());
    sum += a.value_or(-100);
    EXPECT_EQ(b.error().kind, CallFailure::ReplyTypes);
    EXPECT_EQ(c.error().kind, CallFailure::Refused);
    std::vector<bmcbus::AsyncCall<int32_t>> many;
    for (int i = 0; i < 10; ++i)
    {
        many.push_back(Update(on).Async<int32_t>());
    }
    for (const auto& each : co_await bmcbus::All(std::move(many)))
    {
        sum += each.value_or(-100);
    }
}

TYPED_TEST(Calls, AreAwaited)
{
    this->service_.On("updateFanPWMData").Reply({int32_t{3}});
    int sum = 0;
    const bmcbus::Task<> task = Sum(this->connection.get(), sum);
    EXPECT_FALSE(task.Done());
    ASSERT_TRUE(this->RunUntil([&] { return task.Done(); }));
    EXPECT_EQ(sum, 3 + 3 + 3 + 30);
}

TYPED_TEST(Calls, AreCancelledWithTheCoroutineThatWaits)
{
    this->service_.On("updateFanPWMData").Hold();
    int sum = 0;
    bmcbus::Task<> task = Sum(this->connection.get(), sum);
    ASSERT_TRUE(this->RunUntil([&] { return this->service_.WaitForHeld(1, 0ms); }));
    task.Cancel();
    this->service_.Release();
    this->Settle();
    EXPECT_EQ(sum, 0);
    EXPECT_EQ(this->service_.Calls("updateFanPWMData").size(), 1);
}

} // namespace
