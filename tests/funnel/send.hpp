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

inline bool FunnelRuns()
{
    bool ran = false;
    FunnelSend([&] { ran = true; });
    return ran;
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
