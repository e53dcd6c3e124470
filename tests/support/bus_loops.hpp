#pragma once

// The connection in each kind of loop, attached as the headers say. No loop looks at the connection
// unless its descriptor says so, or the caller does what belongs after a blocking call.

#include "run_until.hpp"

#include <bmcbus/testing.hpp>
#include <systemd/sd-bus.h>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <czmq.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace test
{

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

    void AfterABlockingCall() {}
    bool Run(const Condition& done) { return RunUntil(loop, done); }

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

    void AfterABlockingCall() { ProcessAll(bus); }
    bool Run(const Condition& done) { return RunUntil(io, done); }

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

    void AfterABlockingCall() { ProcessAll(bus); }
    bool Run(const Condition& done) { return RunUntil(loop, done); }

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
    explicit PollLoop(sd_bus* connection) : bus(connection) { ProcessAll(bus); }

    void AfterABlockingCall() { ProcessAll(bus); }
    bool Run(const Condition& done)
    {
        return PollUntil(sd_bus_get_fd(bus), done,
                         [this]
                         {
                             ProcessAll(bus);
                             return true;
                         });
    }

  private:
    sd_bus* bus;
};

using BusLoops = ::testing::Types<SdEventLoop, AsioLoop, ZLoop, PollLoop>;

} // namespace test
