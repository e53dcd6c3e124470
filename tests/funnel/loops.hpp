#pragma once

// Event loops of each kind that tells its thread, and sends over the channel.

#include "channel_loops.hpp"
#include "send.hpp"

#include <threadfunnel_over_owc.hpp>

#include <gtest/gtest.h>

#include <latch>
#include <memory>
#include <string>
#include <thread>

namespace test
{

// A loop of one kind: made, registered and run by one thread.
class Loop
{
  public:
    virtual ~Loop() = default;
    virtual void Register() = 0;
    virtual void Run(const Condition& done) = 0;
};

template <class Kind>
class LoopOf : public Loop
{
  public:
    void Register() override { kind.Register(nullptr); }
    void Run(const Condition& done) override { kind.Run(done); }

  private:
    Kind kind;
};

using MakeLoop = std::unique_ptr<Loop> (*)();

template <class Kind>
std::unique_ptr<Loop> Make()
{
    return std::make_unique<LoopOf<Kind>>();
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
                const std::unique_ptr<Loop> loop = make(); // ends its registration with itself
                loop->Register();
                registered.count_down();
                while (!stop) // a test may take longer than one wait does
                {
                    loop->Run([this] { return stop; });
                }
            });
        registered.wait();
    }
    ~LoopThread()
    {
        OneWayChannel_Execute(
            [](void*, void* self, unsigned long)
            {
                static_cast<LoopThread*>(self)->stop = true;
                return 0;
            },
            this, 0, 0);
        thread.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    bool IsCurrent() const { return thread.get_id() == std::this_thread::get_id(); }

  private:
    std::latch registered{1};
    bool stop = false; // the loop's thread's
    std::thread thread;
};

inline void Send(std::function<void()> work)
{
    TFoOWC_init_and_send_work(work);
}

inline bool Runs()
{
    return RunsBy(Send);
}

inline std::string KindName(const testing::TestParamInfo<MakeLoop>& info)
{
    const char* const names[] = {"SdEvent", "ZLoop", "Asio"};
    return names[info.index];
}

// For INSTANTIATE_TEST_SUITE_P.
inline const auto everyLoop = testing::Values(Make<SdEventLoop>, Make<ZLoop>, Make<AsioLoop>);

} // namespace test
