#pragma once

// Sends through the funnel, and an item that holds it up.

#include <threadfunnel.hpp>

#include <functional>
#include <latch>
#include <thread>
#include <utility>

namespace test
{

inline void FunnelSend(std::function<void()> work)
{
    TF_init_and_send_work(work);
}

// Whether an item runs that goes this way.
inline bool RunsBy(void (*send)(std::function<void()> work))
{
    bool ran = false;
    send([&] { ran = true; });
    return ran;
}

inline bool FunnelRuns()
{
    return RunsBy(FunnelSend);
}

// An item of another thread that runs until it is let go.
class BusyFunnel
{
  public:
    BusyFunnel() { running.wait(); }
    void LetGo()
    {
        go.count_down();
        sender.join();
    }

  private:
    std::latch running{1};
    std::latch go{1};
    std::thread sender{[this]
                       {
                           FunnelSend(
                               [this]
                               {
                                   running.count_down();
                                   go.wait();
                               });
                       }};
};

} // namespace test
