#pragma once

// A connection attached to each kind of loop, and the loop that does nothing but process and wait.

#include "run_until.hpp"

#include <bmcbus/attach/asio.hpp>
#include <bmcbus/attach/poll.hpp>
#include <bmcbus/attach/sd_event.hpp>
#include <bmcbus/attach/zloop.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <utility>

namespace test
{

namespace attach = bmcbus::attach;

class SdEventLoop
{
  public:
    explicit SdEventLoop(sd_bus* bus, attach::EndHandler onEnd = {})
    {
        EXPECT_GE(sd_event_new(&loop), 0);
        attached.emplace(loop, bus, std::move(onEnd));
    }
    ~SdEventLoop()
    {
        attached.reset();
        sd_event_unref(loop);
    }
    SdEventLoop(const SdEventLoop&) = delete;
    SdEventLoop& operator=(const SdEventLoop&) = delete;

    bool Run(const Condition& done) { return RunUntil(loop, done); }
    void Detach() { attached.reset(); }

  private:
    sd_event* loop = nullptr;
    std::optional<attach::SdEvent> attached;
};

class AsioLoop
{
  public:
    explicit AsioLoop(sd_bus* bus, attach::EndHandler onEnd = {})
    {
        attached.emplace(io, bus, std::move(onEnd));
    }

    bool Run(const Condition& done) { return RunUntil(io, done); }
    void Detach() { attached.reset(); }

  private:
    boost::asio::io_context io;
    std::optional<attach::Asio> attached;
};

class ZLoop
{
  public:
    explicit ZLoop(sd_bus* bus, attach::EndHandler onEnd = {})
    {
        zloop_set_nonstop(loop, true);
        attached.emplace(loop, bus, std::move(onEnd));
    }
    ~ZLoop()
    {
        attached.reset();
        zloop_destroy(&loop);
    }
    ZLoop(const ZLoop&) = delete;
    ZLoop& operator=(const ZLoop&) = delete;

    bool Run(const Condition& done) { return RunUntil(loop, done); }
    void Detach() { attached.reset(); }

  private:
    zloop_t* loop = zloop_new();
    std::optional<attach::ZLoop> attached;
};

class PollLoop
{
  public:
    explicit PollLoop(sd_bus* bus, attach::EndHandler onEnd = {}) : attached(bus, std::move(onEnd))
    {
    }

    bool Run(const Condition& done)
    {
        return RunTurns(done,
                        [this]
                        {
                            pollfd watched = attached.Prepare();
                            poll(&watched, 1, 10);
                            attached.Dispatch(watched);
                            return true;
                        });
    }

  private:
    attach::Poll attached;
};

class ProcessLoop
{
  public:
    explicit ProcessLoop(sd_bus* connection) : bus(connection) {}

    bool Run(const Condition& done)
    {
        return RunTurns(done,
                        [this]
                        {
                            const int handled = sd_bus_process(bus, nullptr);
                            if (handled == 0)
                            {
                                sd_bus_wait(bus, 10000);
                            }
                            return handled >= 0;
                        });
    }

  private:
    sd_bus* bus;
};

using AttachedLoops = ::testing::Types<SdEventLoop, AsioLoop, ZLoop, PollLoop>;
using BusLoops = ::testing::Types<SdEventLoop, AsioLoop, ZLoop, PollLoop, ProcessLoop>;

using RunLoop = std::function<bool(const Condition& done)>;

// Calls `work` once for each kind of loop, with the connection attached to it.
inline void InEveryLoop(sd_bus* bus, const std::function<void(const RunLoop& run)>& work)
{
    const auto in = [&](auto&& loop)
    { work([&](const Condition& done) { return loop.Run(done); }); };
    in(SdEventLoop(bus));
    in(AsioLoop(bus));
    in(ZLoop(bus));
    in(PollLoop(bus));
    in(ProcessLoop(bus));
}

} // namespace test
