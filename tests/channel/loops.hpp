#pragma once

// The four kinds of loop under one face: register on this thread, run until a condition holds.

#include <oneway_channel.hpp>

#include <bmcbus/testing/wait.hpp>
#include <czmq.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <utility>

namespace test
{

using Condition = std::function<bool()>;
using Function = infrautils::OneWayChannel::Function;

inline infrautils::OneWayChannel& Channel()
{
    return *infrautils::OneWayChannel::GetInstance();
}

// Posts a piece of work that needs nothing of what the channel hands over.
inline int Post(std::function<void()> work)
{
    return Channel().Execute(
        [work = std::move(work)](void*, void*, unsigned long)
        {
            work();
            return 0;
        },
        nullptr, 0, false);
}

class Deadline
{
  public:
    bool Passed() const
    {
        return std::chrono::steady_clock::now() > end;
    }

  private:
    std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + 4 * bmcbus::testing::patience;
};

// Ends the registration before the loop goes.
struct Registration
{
    Registration() = default;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration()
    {
        OneWayChannel_Unregister();
    }
};

class SdEventLoop
{
  public:
    static constexpr auto type = infrautils::RegistrationType::EventLoop;
    static constexpr const char* taken = "Event Loop registration already done";
    static constexpr const char* ending = "unregister sd_event";

    int Register(void* context, Function function = {})
    {
        return Channel().RegisterEventLoop(event, context, std::move(function));
    }
    bool Run(const Condition& done)
    {
        for (const Deadline deadline; !done();)
        {
            if (deadline.Passed() || sd_event_run(event.get(), 10000) < 0)
            {
                return false;
            }
        }
        return true;
    }

    sdeventplus::Event event = sdeventplus::Event::get_new();

  private:
    Registration registration;
};

class ZLoop
{
  public:
    static constexpr auto type = infrautils::RegistrationType::ZLoop;
    static constexpr const char* taken = "zloop registration already done";
    static constexpr const char* ending = "unregister zloop";

    ZLoop()
    {
        zloop_set_nonstop(loop, true);
    }
    ZLoop(const ZLoop&) = delete;
    ZLoop& operator=(const ZLoop&) = delete;
    ~ZLoop()
    {
        OneWayChannel_Unregister();
        zloop_destroy(&loop);
    }
    int Register(void* context, Function function = {})
    {
        return Channel().RegisterZLoop(loop, context, std::move(function));
    }
    bool Run(const Condition& done)
    {
        struct Check
        {
            const Condition& done;
            Deadline deadline;
        } check{done, {}};
        const int timer = zloop_timer(
            loop, 2, 0,
            [](zloop_t*, int, void* arg)
            {
                const auto* self = static_cast<Check*>(arg);
                return self->done() || self->deadline.Passed() ? -1 : 0;
            },
            &check);
        while (!done() && !check.deadline.Passed())
        {
            zloop_start(loop);
        }
        zloop_timer_end(loop, timer);
        return done();
    }

    zloop_t* loop = zloop_new();
};

class AsioLoop
{
  public:
    static constexpr auto type = infrautils::RegistrationType::IOContext;
    static constexpr const char* taken = "io_context already done";
    static constexpr const char* ending = nullptr;

    int Register(void* context, Function function = {})
    {
        return Channel().RegisterIOContext(io, context, std::move(function));
    }
    bool Run(const Condition& done)
    {
        for (const Deadline deadline; !done();)
        {
            if (deadline.Passed())
            {
                return false;
            }
            io.restart();
            io.run_one_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    boost::asio::io_context io;

  private:
    Registration registration;
};

class PollLoop
{
  public:
    static constexpr auto type = infrautils::RegistrationType::UserFD;
    static constexpr const char* taken = "User Fetched FD and registered already";
    static constexpr const char* ending = nullptr;

    int Register(void* context, OneWayChannelFunction function = nullptr)
    {
        return OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(&fd, context, function);
    }
    bool Run(const Condition& done)
    {
        for (const Deadline deadline; !done();)
        {
            pollfd end{.fd = fd, .events = POLLIN, .revents = 0};
            if (deadline.Passed() || (poll(&end, 1, 10) > 0 && OneWayChannel_Process(fd) != 0))
            {
                return false;
            }
        }
        return true;
    }

    int fd = -1;

  private:
    Registration registration;
};

using AllLoops = ::testing::Types<SdEventLoop, ZLoop, AsioLoop, PollLoop>;

inline int TriggerBytes()
{
    int bytes = 0;
    EXPECT_EQ(ioctl(Channel().pipeFds[0], FIONREAD, &bytes), 0);
    return bytes;
}

// Runs queue and pipe empty, so that the next test finds nothing of this one.
inline void Drain()
{
    OneWayChannel_Unregister();
    bool done = false;
    PollLoop loop;
    loop.Register(nullptr);
    Post(
        [&]
        {
            done = true;
        });
    EXPECT_TRUE(loop.Run(
        [&]
        {
            return done && TriggerBytes() == 0;
        }));
}

} // namespace test
