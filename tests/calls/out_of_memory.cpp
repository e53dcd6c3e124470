// Every allocation of a call fails in turn, in each of its forms: the result or an exception says
// so, nothing is kept, and the next call goes as if nothing had been.

#include "failing_memory.hpp"
#include "fixture.hpp"

#include <bmcbus/event_log.hpp>
#include <bmcbus/mapper.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

namespace
{

using namespace test;
using Edge = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

const std::string longName = "a name that is too long to lie inside";

enum class End
{
    None,
    Value,
    Error
};

template <class T>
bmcbus::Task<> Await(bmcbus::AsyncCall<T> call, End& end)
{
    const Result<T> result = co_await std::move(call);
    end = result ? End::Value : End::Error;
}

class OutOfMemory : public testing::Test, public Fans
{
  protected:
    OutOfMemory()
    {
        mapper.Add(path, service, {interface});
        // What a connection keeps is there from now on.
        End end = End::None;
        const bmcbus::Task<> first = Await<Edge::AllProperties>(object.Async_GetAll(), end);
        Run(end);
    }

    void Run(const End& end)
    {
        while (end == End::None)
        {
            if (sd_bus_process(own.get(), nullptr) == 0)
            {
                sd_bus_wait(own.get(), 10000);
            }
        }
    }

    // Does the work with each allocation failing in turn, and then without a failure.
    void FailEach(const std::function<void(End&)>& work)
    {
        for (size_t number = 1;; ++number)
        {
            const size_t before = live;
            End end = End::None;
            failing = number;
            try
            {
                work(end);
            }
            catch (const std::bad_alloc&)
            {
                end = End::Error;
            }
            const bool failed = failing == 0;
            failing = 0;
            EXPECT_EQ(live, before) << number;
            if (!failed)
            {
                EXPECT_EQ(end, End::Value);
                allocations += number - 1;
                return;
            }
            EXPECT_NE(end, End::None) << number;
        }
    }

    // Calls a function in its three forms: with options, with a completion, and to be awaited.
    template <class T, class Blocking, class Async>
    void Each(const Blocking& blocking, const Async& async)
    {
        FailEach([&](End& end) { end = blocking() ? End::Value : End::Error; });
        FailEach(
            [&](End& end)
            {
                const bmcbus::Call call = async([&end](const Result<T>& result)
                                                { end = result ? End::Value : End::Error; });
                Run(end);
            });
        FailEach(
            [&](End& end)
            {
                const bmcbus::Task<> task = Await<T>(async(), end);
                Run(end);
            });
    }

    size_t allocations = 0; // that have failed
    bmcbus::BusRef own = Connect();
    sd_bus* on = own.get();
    kit::FakeMapper mapper;
    kit::FakeEventLog log;
    Edge object{on, service, path};
};

TEST_F(OutOfMemory, FailsOneCallOnly)
{
    Each<int32_t>([&] { return object.Try_updateFanPWMData(longName, 70); }, [&](auto&&... then)
                  { return object.Async_updateFanPWMData(longName, 70, std::move(then)...); });
    Each<Edge::AllProperties>([&] { return object.Try_GetAll(); }, [&](auto&&... then)
                              { return object.Async_GetAll(std::move(then)...); });
    Each<std::string>([&] { return bmcbus::mapper::Try_Service(path, interface, {}, on); },
                      [&](auto&&... then)
                      {
                          return bmcbus::mapper::Async_Service(path, interface, std::move(then)...,
                                                               bmcbus::CallOptions(), on);
                      });
    const bmcbus::event_log::Entry entry(1, 2, 3, longName, "", "", {longName});
    Each<int32_t>([&] { return bmcbus::event_log::Try_Log(entry, {}, on); },
                  [&](auto&&... then) {
                      return bmcbus::event_log::Async_Log(entry, std::move(then)...,
                                                          bmcbus::CallOptions(), on);
                  });
}

// An error with no memory for its name is an error all the same.
TEST_F(OutOfMemory, LeavesTheKindOfAnError)
{
    service_.On("updateFanPWMData").ReplyError("com.example.Error.ThatIsLong", longName);
    for (size_t number = 1; number < 6; ++number)
    {
        Request request = Update(on);
        failing = number;
        const auto result = std::move(request).Try<int32_t>();
        failing = 0;
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error().kind, CallFailure::Remote);
        EXPECT_TRUE(result.error().message == longName ||
                    result.error().message == "out of memory");
    }
}

} // namespace
