// The object mapper and the event log asked with results, and requests that are too large.

#include "bus_loops.hpp"
#include "fixture.hpp"

#include <bmcbus/event_log.hpp>
#include <bmcbus/mapper.hpp>
#include <qzlog_via_dbus.hpp>

namespace
{

using namespace test;

template <class T>
bmcbus::Task<> Await(bmcbus::AsyncCall<T> call, std::optional<Result<T>>& result)
{
    result = co_await std::move(call);
}

// What the three forms give, which must be the same.
// What the three forms of a question give, which must be the same.
template <class T, class Blocking, class Async>
Result<T> Each(sd_bus* on, const Blocking& blocking, const Async& async)
{
    const Result<T> result = blocking();
    std::optional<Result<T>> completed;
    std::optional<Result<T>> awaited;
    const bmcbus::Call call = async([&](Result<T> given) { completed = std::move(given); });
    const bmcbus::Task<> task = Await<T>(async(), awaited);
    ProcessLoop loop(on);
    EXPECT_TRUE(loop.Run([&] { return completed && awaited; }));
    EXPECT_TRUE(completed == result && awaited == result);
    return result;
}

// Calls a function's Try_ and Async_ with the arguments, and with the connection at the end.
#define EACH(T, function, ...)                                                                     \
    Each<T>(                                                                                       \
        on, [&] { return Try_##function(__VA_ARGS__, options, on); },                              \
        [&](auto&&... then) {                                                                      \
            return Async_##function(__VA_ARGS__, std::forward<decltype(then)>(then)..., options,   \
                                    on);                                                           \
        })

struct Questions : testing::Test
{
    kit::PrivateBus bus{kit::BusLimits::Stock()};
    bmcbus::BusRef connection = Connect();
    sd_bus* on = connection.get();
    bmcbus::CallOptions options;
};

TEST_F(Questions, ToTheObjectMapper)
{
    using namespace bmcbus::mapper;
    const std::string fans = "/fans/1";
    const Interfaces all;
    EXPECT_EQ(EACH(std::string, Service, fans, interface).error().name,
              "org.freedesktop.DBus.Error.ServiceUnknown");
    kit::FakeMapper mapper;
    mapper.Add("/fans", "com.example.Tray", {"com.example.Tray"});
    mapper.Add(fans, "com.example.B", {interface});
    mapper.Add(fans, service, {interface, "com.example.Spare"});
    EXPECT_EQ(EACH(std::string, Service, fans, interface), "com.example.B");
    EXPECT_EQ(EACH(Services, GetObject, fans, Interfaces{"com.example.Spare"}),
              (Services{{service, {interface, "com.example.Spare"}}}));
    EXPECT_EQ(EACH(Tree, GetSubTree, "/", 0, Interfaces{"com.example.Tray"}),
              (Tree{{"/fans", {{"com.example.Tray", {"com.example.Tray"}}}}}));
    EXPECT_EQ(EACH(std::list<std::string>, GetSubTreePaths, "/fans", 1, all),
              std::list<std::string>{fans});
    EXPECT_EQ(EACH(Tree, GetAncestors, fans, all).value().size(), 1);
    EXPECT_EQ(EACH(Services, GetObject, "/none", all).error().name,
              "xyz.openbmc_project.Common.Error.ResourceNotFound");
    mapper.On("GetObject").Reply({kit::Value(std::map<std::string, std::vector<std::string>>())});
    EXPECT_EQ(EACH(std::string, Service, fans, interface).error().kind, CallFailure::ReplyTypes);
}

TEST_F(Questions, ToTheEventLogSayWhatBecameOfTheEntry)
{
    using namespace bmcbus::event_log;
    Entry entry(2, 1, 3, "FAN0001", "A fan is slow", "Fan.1", {"3", "\xff"});
    const auto fate = [&] { return FateOf(EACH(int32_t, Log, entry)); };
    EXPECT_EQ(fate(), Fate::Unreachable);
    kit::FakeEventLog log;
    EXPECT_EQ(fate(), Fate::Sent);
    bmcbus::Bus plain(sd_bus_ref(on), std::false_type());
    QZLogViaDbus::Log(plain, 2, 1, 3, entry.messageID, entry.message, entry.FQDD, entry.args);
    ASSERT_EQ(log.Entries().size(), 4);
    for (const kit::EventLogEntry& each : log.Entries())
    {
        EXPECT_EQ(each.Text(), log.Entries().back().Text());
    }
    const auto rule = [&] { return log.On(kit::eventLogMethod); };
    rule().ReplyError("com.example.Error.Full");
    EXPECT_EQ(fate(), Fate::Refused);
    rule().Reply({"text"});
    EXPECT_EQ(fate(), Fate::Refused);
    rule().NoReply();
    options.timeout = 20ms;
    EXPECT_EQ(fate(), Fate::Unreachable);
    log.ClearCalls();
    entry.message = "\xff";
    EXPECT_EQ(EACH(int32_t, Log, entry).error().kind, CallFailure::Refused);
    EXPECT_EQ(fate(), Fate::Unreachable);
    EXPECT_TRUE(log.Entries().empty());
}

// The daemon would close the connection. Requests may be put together in turn.
TEST_F(Questions, ThatAreTooLargeAreRefused)
{
    const kit::FakeService fans(service, path, {interface});
    const std::string half(17U << 20U, 'x');
    Request first(on, service, path, interface, "Do");
    Request second = Update(on);
    first.With(half);
    EXPECT_TRUE(second.Try<int32_t>());
    const auto result = first.With(half).Try();
    EXPECT_EQ(result.error().kind, CallFailure::Refused);
    EXPECT_NE(result.error().message.find("EMSGSIZE"), std::string::npos);
    EXPECT_TRUE(Update(on).Try<int32_t>());
}

} // namespace
