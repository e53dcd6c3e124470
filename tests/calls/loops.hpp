#pragma once

// A connection with calls under way in each kind of loop, attached as the headers say, and the loop
// that does nothing but process and wait.

#include "run_until.hpp"

#include <bmcbus/dispatcher.hpp>
#include <bmcbus/testing.hpp>
#include <systemd/sd-bus.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <czmq.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace test
{

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

    bool Run(const Condition& done) { return RunUntil(loop, done); }

  private:
    sd_bus* bus;
    sd_event* loop = nullptr;
};

class AsioLoop
{
  public:
    explicit AsioLoop(sd_bus* bus) : dispatcher(bus), watch(io, dup(dispatcher.Descriptor()))
    {
        Wait();
    }

    bool Run(const Condition& done) { return RunUntil(io, done); }

  private:
    void Wait()
    {
        watch.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                         [this](const boost::system::error_code& error)
                         {
                             if (!error && dispatcher.Dispatch() >= 0)
                             {
                                 Wait();
                             }
                         });
    }

    bmcbus::Dispatcher dispatcher;
    boost::asio::io_context io;
    boost::asio::posix::stream_descriptor watch;
};

class ZLoop
{
  public:
    explicit ZLoop(sd_bus* bus) : dispatcher(bus)
    {
        zloop_set_nonstop(loop, true);
        EXPECT_EQ(zloop_poller(loop, &item, OnReadable, &dispatcher), 0);
    }
    ~ZLoop()
    {
        zloop_poller_end(loop, &item);
        zloop_destroy(&loop);
    }
    ZLoop(const ZLoop&) = delete;
    ZLoop& operator=(const ZLoop&) = delete;

    bool Run(const Condition& done) { return RunUntil(loop, done); }

  private:
    static int OnReadable(zloop_t*, zmq_pollitem_t*, void* dispatcher)
    {
        return static_cast<bmcbus::Dispatcher*>(dispatcher)->Dispatch() < 0 ? -1 : 0;
    }

    bmcbus::Dispatcher dispatcher;
    zloop_t* loop = zloop_new();
    zmq_pollitem_t item = {nullptr, dispatcher.Descriptor(), ZMQ_POLLIN, 0};
};

class PollLoop
{
  public:
    explicit PollLoop(sd_bus* bus) : dispatcher(bus) {}

    bool Run(const Condition& done)
    {
        return PollUntil(dispatcher.Descriptor(), done,
                         [this]
                         {
                             dispatcher.Dispatch();
                             return true;
                         });
    }

  private:
    bmcbus::Dispatcher dispatcher;
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

using CallLoops = ::testing::Types<SdEventLoop, AsioLoop, ZLoop, PollLoop, ProcessLoop>;

} // namespace test
