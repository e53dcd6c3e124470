// Connections that end in odd ways, children, and waits that must not last.

#include "bus_loops.hpp"
#include "fixture.hpp"
#include "in_child.hpp"

#include <csignal>
#include <cstdlib>
#include <sys/time.h>
#include <thread>

namespace
{

using namespace test;

class Ends : public testing::Test, public Fans
{
  protected:
    Ends() { ClearLog(); }
};

TEST_F(Ends, OfTheLastReferenceTellsEverybodyAndFreesTheConnection)
{
    service_.On("updateFanPWMData").Hold();
    bmcbus::BusRef connection = Connect();
    ASSERT_TRUE(Request(connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                        "org.freedesktop.DBus", "GetId")
                    .Try<std::string>());
    const size_t connections = bus.Connections().size();
    std::vector<Told> told(1000);
    std::vector<bmcbus::Call> calls;
    Told next;
    for (Told& each : told)
    {
        calls.push_back(Update(connection.get()).Async<int32_t>(each.Listener()));
    }
    // In there the connection can neither be used nor looked up.
    calls.push_back(Update(connection.get())
                        .Async<int32_t>(
                            [&](const Result<int32_t>&)
                            {
                                calls.front().Cancel();
                                calls.back().Cancel();
                                Request(service, path, interface, "updateFanPWMData")
                                    .Async<int32_t>(next.Listener())
                                    .Detach();
                            }));
    connection.reset();
    EXPECT_EQ(
        std::count_if(told.begin(), told.end(), [](const Told& each) { return each.Once(); }) +
            (told.front().times == 0 ? 1 : 0),
        1000);
    EXPECT_EQ(told.back().Kind(), CallFailure::Disconnected);
    EXPECT_EQ(next.Kind(), CallFailure::Disconnected);
    EXPECT_TRUE(kit::Until([&] { return bus.Connections().size() < connections; }));
}

TEST_F(Ends, OfADefaultConnectionThatNobodyHoldsIsTold)
{
    Told told;
    const bmcbus::Call call =
        Request(service, path, interface, "updateFanPWMData").Async<int32_t>(told.Listener());
    ASSERT_TRUE(told.Once());
    EXPECT_EQ(told.Kind(), CallFailure::Disconnected);
}

TEST_F(Ends, AreNoneInAChild)
{
    const bmcbus::BusRef connection = Connect();
    Told told;
    auto held = std::make_shared<int>(1);
    bmcbus::Call call =
        Update(connection.get())
            .Async<int32_t>([&told, held](const Result<int32_t>&) { ++told.times; });
    bmcbus::Dispatcher dispatcher(connection.get());
    Told overdue;
    const bmcbus::CallDeadline passed(1ms);
    const bmcbus::Call other =
        Update(connection.get()).Async<int32_t>(overdue.Listener(), {.deadline = passed});
    EXPECT_EQ(ExitOfChild(
                  [&]
                  {
                      while (!passed.Passed())
                      {
                      }
                      EXPECT_EQ(dispatcher.Dispatch(), -ECHILD);
                      const auto refused = Update(connection.get()).Try<int32_t>();
                      call.Cancel();
                      Told late;
                      Update(connection.get()).Async<int32_t>(late.Listener()).Detach();
                      return told.times + overdue.times == 0 && !refused && late.Once() ? 0 : 1;
                  }),
              0);
    ProcessLoop loop(connection.get());
    EXPECT_TRUE(loop.Run([&] { return told.times == 1; }));
}

TEST_F(Ends, OfACallThatIsAssignedToMayAssignToItToo)
{
    const bmcbus::BusRef connection = Connect();
    Told between;
    Told last;
    bmcbus::Call call;
    std::shared_ptr<void> starts(
        nullptr,
        [&](void*) { call = Update(connection.get()).Async<int32_t>(between.Listener()); });
    call = Update(connection.get())
               .Async<int32_t>([starts = std::move(starts)](const Result<int32_t>&) {});
    call = Update(connection.get()).Async<int32_t>(last.Listener());
    call.Cancel();
    Told ping;
    call = Update(connection.get()).Async<int32_t>(ping.Listener());
    ProcessLoop loop(connection.get());
    ASSERT_TRUE(loop.Run([&] { return ping.Once(); }));
    EXPECT_EQ(between.times + last.times, 0);
}

// One without a socket was refused, one whose daemon is dead was not.
TEST_F(Ends, OfABusThatIsMissingAreDisconnected)
{
    const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    std::thread(
        [] { EXPECT_EQ(Update(nullptr).Try<int32_t>().error().kind, CallFailure::Disconnected); })
        .join();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

// Blocking calls.

TEST_F(Ends, OfATryComesInTimeWhenServiceOrDaemonIsStopped)
{
    service_.On("updateFanPWMData").Hold();
    const bmcbus::BusRef connection = Connect();
    auto late = Update(connection.get()).Try<int32_t>({.timeout = 50ms});
    EXPECT_EQ(late.error().kind, CallFailure::Timeout);
    Pause();
    late = Update(connection.get()).Try<int32_t>({.timeout = 50ms});
    EXPECT_EQ(late.error().kind, CallFailure::Timeout);
    // A connection that is not up yet: libsystemd's own timeout has not begun.
    const bmcbus::BusRef fresh = Connect();
    late = Update(fresh.get()).Try<int32_t>({.timeout = 50ms});
    EXPECT_EQ(late.error().kind, CallFailure::Timeout);
    Resume();
}

TEST_F(Ends, OfATryWithoutATimeoutDoesNotComeAtTheConnectionsOwn)
{
    service_.On("updateFanPWMData").Delay(30ms);
    const bmcbus::BusRef connection = Connect();
    sd_bus_set_method_call_timeout(connection.get(), 1000);
    EXPECT_EQ(Update(connection.get()).Try<int32_t>().error().kind, CallFailure::Timeout);
    EXPECT_TRUE(
        Update(connection.get()).Try<int32_t>({.timeout = std::chrono::microseconds::max()}));
}

template <class Loop>
class NotUp : public Ends
{
};
TYPED_TEST_SUITE(NotUp, BusLoops);

// The asynchronous one.
TYPED_TEST(NotUp, ConnectionsTimeOutToo)
{
    if constexpr (std::is_same_v<TypeParam, ProcessLoop>)
    {
        GTEST_SKIP() << "libsystemd alone has no timeouts yet";
    }
    this->Pause();
    const bmcbus::BusRef connection = Connect();
    TypeParam loop(connection.get());
    Told later;
    Told told;
    const auto start = [&](Told& to, std::chrono::milliseconds timeout) {
        return Update(connection.get())
            .template Async<int32_t>(to.Listener(), {.timeout = timeout});
    };
    const bmcbus::Call first = start(later, 10min);
    const bmcbus::Call call = start(told, 30ms);
    EXPECT_TRUE(loop.Run([&] { return told.Once(); }));
    EXPECT_EQ(told.Kind(), CallFailure::Timeout);
    this->Resume();
}

TEST_F(Ends, OfATryAreNotBroughtBySignals)
{
    service_.On("updateFanPWMData").Delay(100ms);
    const bmcbus::BusRef connection = Connect();
    static volatile std::sig_atomic_t alarms;
    alarms = 0;
    struct sigaction before = {};
    struct sigaction count = {};
    count.sa_handler = [](int) { alarms = alarms + 1; };
    sigaction(SIGALRM, &count, &before);
    const itimerval often = {{0, 5000}, {0, 5000}};
    const itimerval off = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto result = Update(connection.get()).Try<int32_t>({.timeout = 20s});
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_GT(alarms, 0);
    EXPECT_EQ(service_.Calls("updateFanPWMData").size(), 1);
}

TEST_F(Ends, OfATryHaveNamesToo)
{
    const bmcbus::BusRef connection = Connect();
    sd_bus* on = connection.get();
    service_.On("updateFanPWMData").Once().ReplyError("org.freedesktop.DBus.Error.Timeout", "mine");
    auto result = Update(on).Try<int32_t>();
    EXPECT_EQ(result.error().kind, CallFailure::Remote);
    EXPECT_EQ(result.error().message, "mine");
    result = Request(on, "com.example.Nobody", path, interface, "Do").Try<int32_t>();
    EXPECT_EQ(result.error().name, "org.freedesktop.DBus.Error.ServiceUnknown");
    service_.On("updateFanPWMData").Once().Reply({"text"});
    result = Update(on).Try<int32_t>();
    EXPECT_EQ(result.error().kind, CallFailure::ReplyTypes);
    Request once = Update(on);
    EXPECT_TRUE(once.Try<int32_t>());
    EXPECT_EQ(once.Try<int32_t>().error().kind, CallFailure::Refused);
    sd_bus_close(on);
    EXPECT_EQ(Update(on).Try<int32_t>().error().kind, CallFailure::Disconnected);
}

} // namespace
