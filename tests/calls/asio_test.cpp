// Calls awaited by asio's completion tokens.

#include <bmcbus/asio.hpp>

#include "fixture.hpp"
#include "run_until.hpp"

#include <bmcbus/attach/asio.hpp>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace
{

using namespace test;
struct Asio : testing::Test, Fans
{
    bmcbus::BusRef connection = Connect();
    boost::asio::io_context io;
    bmcbus::attach::Asio attached{io, connection.get()};
};

#ifdef BOOST_ASIO_HAS_CO_AWAIT // not with clang 14 and Boost 1.74

using Results = std::vector<Result<int32_t>>;

boost::asio::awaitable<void> Ask(sd_bus* on, kit::FakeService& fans, Results& results)
{
    const auto await = [on](const bmcbus::CallOptions& options)
    { return bmcbus::Await(Update(on).Async<int32_t>(options), boost::asio::use_awaitable); };
    results.push_back(co_await await({}));
    fans.On("updateFanPWMData").NoReply();
    results.push_back(co_await await({.timeout = 20ms}));
    results.push_back(co_await await({.timeout = -1s})); // ends before it is sent
}

TEST_F(Asio, AwaitsWithTheResult)
{
    service_.On("updateFanPWMData").Reply({int32_t{42}});
    Results results;
    boost::asio::co_spawn(io, Ask(connection.get(), service_, results), boost::asio::detached);
    ASSERT_TRUE(RunUntil(io, [&] { return results.size() == 3; }));
    EXPECT_EQ(results[0], 42);
    for (size_t i = 1; i < 3; ++i)
    {
        ASSERT_FALSE(results[i]);
        EXPECT_EQ(results[i].error().name, bmcbus::error_name::timeout);
    }
}

TEST(AsioContext, TakesItsHandlersAlong)
{
    const Fans fans;
    const bmcbus::BusRef connection = Connect();
    const auto held = std::make_shared<int>(1);
    {
        boost::asio::io_context io;
        boost::asio::co_spawn(
            io,
            [](sd_bus* on, std::shared_ptr<int> /*held*/) -> boost::asio::awaitable<void>
            {
                co_await bmcbus::Await(Update(on).Async<int32_t>(), boost::asio::use_awaitable);
                ADD_FAILURE() << "went on without its context";
            }(connection.get(), held),
            boost::asio::detached);
        io.poll();
        EXPECT_EQ(held.use_count(), 2);
    }
    EXPECT_EQ(held.use_count(), 1);
}

#endif

TEST_F(Asio, RunsNoHandlerInsideTheFunctionThatStarts)
{
    size_t told = 0;
    for (const auto timeout : {20s, -1s})
    {
        bmcbus::Await(
            Update(connection.get()).Async<int32_t>({.timeout = timeout}),
            boost::asio::bind_executor(io.get_executor(), [&](const Result<int32_t>&) { ++told; }));
    }
    EXPECT_EQ(told, 0U);
    EXPECT_TRUE(RunUntil(io, [&] { return told == 2; }));
}

TEST_F(Asio, RunsAHandlerWithoutAnExecutorWhereTheCallEnds)
{
    std::thread::id on;
    bmcbus::Await(Update(connection.get()).Async<int32_t>({.timeout = -1s}),
                  [&](const Result<int32_t>&) { on = std::this_thread::get_id(); });
    EXPECT_TRUE(on == std::this_thread::get_id());
}

} // namespace
