#pragma once

// The connection in each kind of loop, attached as the headers say. No loop looks at the connection
// unless its descriptor says so, or the caller does what belongs after a blocking call.

#include <bmcbus/testing.hpp>
#include <systemd/sd-bus.h>

#include <boost/asio.hpp>
#include <czmq.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <functional>

namespace test
{

class Deadline
{
  public:
    bool Passed() const
    {
        return std::chrono::steady_clock::now() > end;
    }

  private:
    std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + bmcbus::testing::patience;
};

using Condition = std::function<bool()>;

// Handles what has been read; then the descriptor tells of everything else.
inline void ProcessAll(sd_bus* bus)
{
    while (sd_bus_process(bus, nullptr) > 0)
    {
    }
}

class SdEventLoop
{
  public:
    explicit SdEventLoop(sd_bus* connection) : bus(connection)
    {
        EXPECT_GE(sd_event_new(&loop), 0);
        EXPECT_GE(sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL), 0);
    }
    ~SdEventLoop()
    {
        sd_bus_detach_event(bus);
        sd_event_unref(loop);
    }
    SdEventLoop(const SdEventLoop&) = delete;
    SdEventLoop& operator=(const SdEventLoop&) = delete;

    void AfterABlockingCall()
    {
    }
    bool Run(const Condition& done)
    {
        constexpr uint64_t tick = 10'000;
        for (const Deadline deadline; !done() && !deadline.Passed();)
        {
            if (sd_event_run(loop, tick) < 0)
            {
                break;
            }
        }
        return done();
    }

  private:
    sd_bus* bus;
    sd_event* loop = nullptr;
};

class AsioLoop
{
  public:
    explicit AsioLoop(sd_bus* connection) : bus(connection), watch(io, dup(sd_bus_get_fd(bus)))
    {
        ProcessAll(bus);
        Wait();
    }

    void AfterABlockingCall()
    {
        ProcessAll(bus);
    }
    bool Run(const Condition& done)
    {
        for (const Deadline deadline; !done() && !deadline.Passed();)
        {
            io.restart();
            io.run_one_for(std::chrono::milliseconds(10));
        }
        return done();
    }

  private:
    void Wait()
    {
        watch.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                         [this](const boost::system::error_code& error)
                         {
                             if (!error)
                             {
                                 ProcessAll(bus);
                                 Wait();
                             }
                         });
    }

    sd_bus* bus;
    boost::asio::io_context io;
    boost::asio::posix::stream_descriptor watch;
};

class ZLoop
{
  public:
    explicit ZLoop(sd_bus* connection) : bus(connection)
    {
        ProcessAll(bus);
        zloop_set_nonstop(loop, true);
        EXPECT_EQ(zloop_poller(loop, &item, OnReadable, bus), 0);
    }
    ~ZLoop()
    {
        zloop_poller_end(loop, &item);
        zloop_destroy(&loop);
    }
    ZLoop(const ZLoop&) = delete;
    ZLoop& operator=(const ZLoop&) = delete;

    void AfterABlockingCall()
    {
        ProcessAll(bus);
    }
    bool Run(const Condition& done)
    {
        const Deadline deadline;
        Condition stop = [&]
        {
            return done() || deadline.Passed();
        };
        const int timer = zloop_timer(
            loop, 2, 0,
            [](zloop_t*, int, void* condition)
            {
                return (*static_cast<Condition*>(condition))() ? -1 : 0;
            },
            &stop);
        while (!stop())
        {
            zloop_start(loop);
        }
        zloop_timer_end(loop, timer);
        return done();
    }

  private:
    static int OnReadable(zloop_t*, zmq_pollitem_t*, void* bus)
    {
        ProcessAll(static_cast<sd_bus*>(bus));
        return 0;
    }

    sd_bus* bus;
    zloop_t* loop = zloop_new();
    zmq_pollitem_t item = {nullptr, sd_bus_get_fd(bus), ZMQ_POLLIN, 0};
};

class PollLoop
{
  public:
    explicit PollLoop(sd_bus* connection) : bus(connection)
    {
        ProcessAll(bus);
    }

    void AfterABlockingCall()
    {
        ProcessAll(bus);
    }
    bool Run(const Condition& done)
    {
        for (const Deadline deadline; !done() && !deadline.Passed();)
        {
            pollfd readable = {sd_bus_get_fd(bus), POLLIN, 0};
            if (poll(&readable, 1, 10) > 0)
            {
                ProcessAll(bus);
            }
        }
        return done();
    }

  private:
    sd_bus* bus;
};

using BusLoops = ::testing::Types<SdEventLoop, AsioLoop, ZLoop, PollLoop>;

} // namespace test
