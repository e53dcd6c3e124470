// Calls of direct proxies: how they end with the proxy, and what has no value.

#include "bus_loops.hpp"
#include "fixture.hpp"
#include "in_child.hpp"

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

namespace
{

using namespace test;
using Edge = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

bmcbus::Task<> Await(Edge& object, std::optional<Result<uint8_t>>& result)
{
    result = co_await object.Async_Get_fanCount();
}

class Proxies : public testing::Test, public Fans
{
  protected:
    bmcbus::BusRef connection = Connect();
    ProcessLoop loop{connection.get()};
    std::optional<Edge> object{std::in_place, connection.get(), service, path};
};

TEST_F(Proxies, EndTheirCallsWhenTheyGo)
{
    service_.On("Get").Hold();
    size_t completions = 0;
    std::vector<bmcbus::Call> calls;
    std::optional<Result<uint8_t>> awaited;
    const bmcbus::Task<> task = Await(*object, awaited);
    for (int i = 0; i < 100; ++i)
    {
        calls.push_back(object->Async_Get_fanCount([&](const Result<uint8_t>&) { ++completions; }));
    }
    object->Async_Get_fanCount([&](const Result<uint8_t>&) { ++completions; }).Detach();
    ASSERT_TRUE(loop.Run([&] { return service_.WaitForHeld(102, 0ms); }));
    calls.front().Cancel();
    object.reset();
    ASSERT_TRUE(task.Done());
    EXPECT_EQ(awaited->error().kind, CallFailure::Cancelled);
    EXPECT_FALSE(calls.back().Pending());
    service_.Release();
    Told ping;
    const bmcbus::Call last = Update(connection.get()).Async<int32_t>(ping.Listener());
    ASSERT_TRUE(loop.Run([&] { return ping.Once(); }));
    EXPECT_EQ(completions, 0U);
}

TEST_F(Proxies, ResumeNobodyInAChild)
{
    service_.On("Get").Hold();
    std::optional<Result<uint8_t>> awaited;
    const bmcbus::Task<> task = Await(*object, awaited);
    EXPECT_EQ(ExitOfChild(
                  [&]
                  {
                      object.reset();
                      return awaited ? 1 : 0;
                  }),
              0);
}

TEST_F(Proxies, MayGoInACompletion)
{
    size_t completions = 0;
    const auto release = [&](const Result<uint8_t>& count)
    {
        EXPECT_EQ(count, 2);
        ++completions;
        object.reset();
    };
    const bmcbus::Call first = object->Async_Get_fanCount(release);
    const bmcbus::Call second = object->Async_Get_fanCount(release);
    ASSERT_TRUE(loop.Run([&] { return !first.Pending(); }));
    EXPECT_FALSE(second.Pending());
    EXPECT_EQ(completions, 1U);
}

TEST_F(Proxies, LeaveUnsetWhatDoesNotFit)
{
    service_.On("GetAll").Reply(
        {kit::AsPropertyMap({{"fanCount", int64_t{-5}}, {"unknown", "text"}})});
    const auto all = object->Try_GetAll();
    ASSERT_TRUE(all);
    EXPECT_FALSE(all->values.fanCount);
    EXPECT_FALSE(all->values.fanPWMData);
    EXPECT_EQ(all->map.size(), 2U);
}

TEST_F(Proxies, WithoutAServiceRefuse)
{
    Edge nobody(connection.get(), "", path);
    EXPECT_EQ(nobody.Try_Get_fanCount().error().kind, CallFailure::Refused);
}

} // namespace
