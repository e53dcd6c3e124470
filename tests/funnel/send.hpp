#pragma once

// Sends through the funnel, by one thread or by many, and an item that holds it up.

#include <threadfunnel.hpp>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

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

// A thread for each way to send, which sends until it is stopped.
class Senders
{
  public:
    Senders(std::initializer_list<bool (*)()> ways)
    {
        for (bool (*send)() : ways)
        {
            threads.emplace_back(
                [this, send]
                {
                    while (!stop)
                    {
                        refused += send() ? 0 : 1;
                    }
                });
        }
    }

    // How many sends were refused.
    int Stop()
    {
        stop = true;
        threads.clear();
        return refused;
    }

  private:
    std::atomic<bool> stop{false};
    std::atomic<int> refused{0};
    std::vector<std::jthread> threads;
};

// Four threads that send so often each; how many sends went wrong.
inline int SendFromMany(int each, const std::function<bool()>& send)
{
    std::atomic<int> wrong{0};
    std::vector<std::jthread> threads(4);
    for (std::jthread& thread : threads)
    {
        thread = std::jthread(
            [&]
            {
                for (int n = 0; n < each; ++n)
                {
                    wrong += send() ? 0 : 1;
                }
            });
    }
    threads.clear();
    return wrong;
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
