#pragma once

// Event loops of each kind that tells its thread, and sends over the channel.

#include <czmq.h>
#include <oneway_channel.hpp>
#include <systemd/sd-event.h>
#include <threadfunnel.hpp>
#include <threadfunnel_over_owc.hpp>

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <string>
#include <thread>

namespace test
{

using infrautils::OneWayChannel;

// A loop of one kind: made, registered and run by the thread that calls Run().
class Loop
{
  public:
    virtual ~Loop() = default;
    virtual void Register() = 0;
    virtual void Run() = 0;
    // Called on the loop's thread.
    virtual void Stop() = 0;
};

class SdEventLoop : public Loop
{
  public:
    SdEventLoop() : event(New())
    {
    }
    void Register() override
    {
        OneWayChannel::GetInstance()->RegisterEventLoop(event, nullptr, {});
    }
    void Run() override
    {
        sd_event_loop(event.get());
    }
    void Stop() override
    {
        sd_event_exit(event.get(), 0);
    }

  private:
    static sdeventplus::Event New()
    {
        sd_event* made = nullptr;
        sd_event_new(&made);
        return {made, std::false_type()};
    }
    sdeventplus::Event event;
};

class ReactorLoop : public Loop
{
  public:
    void Register() override
    {
        OneWayChannel_RegisterZLoop(loop.get(), nullptr);
    }
    void Run() override
    {
        zloop_start(loop.get());
    }
    void Stop() override
    {
        const auto end = [](zloop_t*, int, void*)
        {
            return -1;
        };
        zloop_timer(loop.get(), 0, 1, end, nullptr);
    }

  private:
    struct Destroy
    {
        void operator()(zloop_t* old) const
        {
            zloop_destroy(&old);
        }
    };
    std::unique_ptr<zloop_t, Destroy> loop{zloop_new()};
};

class AsioLoop : public Loop
{
  public:
    void Register() override
    {
        OneWayChannel::GetInstance()->RegisterIOContext(context, nullptr, {});
    }
    void Run() override
    {
        context.run();
    }
    void Stop() override
    {
        context.stop();
    }

  private:
    boost::asio::io_context context;
};

using MakeLoop = std::unique_ptr<Loop> (*)();

template <class Kind>
std::unique_ptr<Loop> Make()
{
    return std::make_unique<Kind>();
}

// A registered loop on a thread of its own.
class LoopThread
{
  public:
    explicit LoopThread(MakeLoop make)
    {
        thread = std::thread(
            [this, make]
            {
                loop = make();
                loop->Register();
                registered.count_down();
                loop->Run();
                OneWayChannel_Unregister();
                loop.reset();
            });
        registered.wait();
    }
    ~LoopThread()
    {
        OneWayChannel_Execute(
            [](void*, void* self, unsigned long)
            {
                static_cast<LoopThread*>(self)->loop->Stop();
                return 0;
            },
            this, 0, 0);
        thread.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    bool IsCurrent() const
    {
        return thread.get_id() == std::this_thread::get_id();
    }

  private:
    std::latch registered{1};
    std::unique_ptr<Loop> loop;
    std::thread thread;
};

inline void Send(std::function<void()> work)
{
    TFoOWC_init_and_send_work(work);
}

inline bool Runs()
{
    bool ran = false;
    Send(
        [&]
        {
            ran = true;
        });
    return ran;
}

inline bool FunnelRuns()
{
    bool ran = false;
    std::function<void()> work = [&]
    {
        ran = true;
    };
    TF_init_and_send_work(work);
    return ran;
}

inline std::string KindName(const testing::TestParamInfo<MakeLoop>& info)
{
    const char* const names[] = {"SdEvent", "ZLoop", "Asio"};
    return names[info.index];
}

// For INSTANTIATE_TEST_SUITE_P.
inline const auto everyLoop = testing::Values(Make<SdEventLoop>, Make<ReactorLoop>, Make<AsioLoop>);

} // namespace test
