#pragma once

// The four kinds of loop with the channel under one face: register on this thread, run until a
// condition holds.

#include "run_until.hpp"

#include <oneway_channel.hpp>

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <functional>
#include <type_traits>
#include <utility>

namespace test
{

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

inline sd_event* NewEventLoop()
{
    sd_event* made = nullptr;
    EXPECT_GE(sd_event_new(&made), 0);
    return made;
}

// Ends the registration before the loop goes.
struct Registration
{
    Registration() = default;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { OneWayChannel_Unregister(); }
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
    bool Run(const Condition& done) { return RunUntil(raw, done); }

    sd_event* raw = NewEventLoop();
    sdeventplus::Event event{raw, std::false_type()};

  private:
    Registration registration;
};

class ZLoop
{
  public:
    static constexpr auto type = infrautils::RegistrationType::ZLoop;
    static constexpr const char* taken = "zloop registration already done";
    static constexpr const char* ending = "unregister zloop";

    ZLoop() { zloop_set_nonstop(loop, true); }
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
    bool Run(const Condition& done) { return RunUntil(loop, done); }

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
    bool Run(const Condition& done) { return RunUntil(io, done); }

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
        return PollUntil(fd, done, [this] { return OneWayChannel_Process(fd) == 0; });
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
    Post([&] { done = true; });
    EXPECT_TRUE(loop.Run([&] { return done && TriggerBytes() == 0; }));
}

} // namespace test
