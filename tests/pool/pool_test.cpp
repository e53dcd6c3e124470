// The pool: order, what tasks throw, clearing, and how it ends.

#include "bounded.hpp"
#include "faults.h"
#include "log_recorder.hpp"

#include <signal.h>
#include <yetanotherthreadpool.hpp>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace
{

using test::CountLog;
using Pool = YetAnotherThreadPool;

constexpr unsigned int source = 300;
const std::string body = "workerThreadBody";

class ThreadPool : public test::Bounded
{
  protected:
    void SetUp() override
    {
        Bounded::SetUp();
        test::ClearLog();
        FailCalls(&threadCreation, 0, 0, 0);
    }
};

// Whether a task that is enqueued now runs.
bool Works(Pool& pool)
{
    const auto ran = std::make_shared<std::atomic<bool>>(false);
    pool.enqueue([ran] { *ran = true; });
    return test::Eventually([&] { return ran->load(); });
}

// Keeps one worker busy until it is let go.
class Blocker
{
  public:
    explicit Blocker(Pool& pool)
    {
        pool.enqueue(
            [this]
            {
                running.count_down();
                go.wait();
            });
        running.wait();
    }
    void LetGo() { go.count_down(); }

  private:
    std::latch running{1};
    std::latch go{1};
};

TEST_F(ThreadPool, HasTheWorkersAskedFor)
{
    for (const auto& [asked, started] : {std::pair{0UL, 1}, {1UL, 1}, {3UL, 3}})
    {
        FailCalls(&threadCreation, 0, 0, 0);
        const Pool pool(asked);
        EXPECT_EQ(CountCalls(&threadCreation), started);
    }
    EXPECT_EQ(CountLog(5, source, body, "exiting thread\n"), 5U);

    // All of them at work at the same time, one that was added later included.
    Pool pool(2);
    pool.makeNewWorkerThread();
    std::latch together(3);
    for (int i = 0; i < 3; ++i)
    {
        pool.enqueue([&] { together.arrive_and_wait(); });
    }
    together.wait();
}

TEST_F(ThreadPool, OneWorkerKeepsTheOrderAndDrainsOnDestruction)
{
    static constexpr int count = 1000;
    std::vector<int> order;
    {
        Pool pool(1);
        Blocker first(pool);
        for (int i = 0; i < count; ++i)
        {
            pool.enqueue([&order, i] { order.push_back(i); });
        }
        pool.enqueue([&] { pool.enqueue([&] { order.push_back(count); }); });
        first.LetGo();
    }
    std::vector<int> expected(count + 1);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);
}

TEST_F(ThreadPool, WorkerSurvivesWhatTasksThrow)
{
    std::set<std::thread::id> workers;
    {
        Pool pool(1);
        const auto note = [&] { workers.insert(std::this_thread::get_id()); };
        pool.enqueue(note);
        pool.enqueue([] { throw std::runtime_error("of the task"); });
        pool.enqueue(nullptr);
        pool.enqueue([] { throw 7; });
        pool.enqueue(note);
    }
    EXPECT_EQ(workers.size(), 1U);
    EXPECT_EQ(CountLog(1, source, body, "Exception in task: of the task\n"), 1U);
    EXPECT_EQ(CountLog(1, source, body,
                       std::string("Exception in task: ") + std::bad_function_call().what() + "\n"),
              1U);
    EXPECT_EQ(CountLog(1, source, body, "Exception in task: not a std::exception\n"), 1U);
    EXPECT_EQ(CountLog(5, source, body, "before running task\n"), 5U);
    EXPECT_EQ(CountLog(5, source, body, "after running task\n"), 2U);
}

TEST_F(ThreadPool, ClearedTasksAreDroppedInOrderOutsideTheLock)
{
    struct Dropped
    {
        Pool& pool;
        std::vector<int>& order;
        int number;
        ~Dropped()
        {
            order.push_back(number);
            EXPECT_EQ(CountLog(5, source, "clearQueue", "leave"), 0U);
            pool.enqueue([] {}); // what a task holds may use the pool while it goes
        }
    };
    std::vector<int> dropped;
    std::atomic<bool> ran{false};
    {
        Pool pool(1);
        Blocker running(pool);
        for (int i = 0; i < 3; ++i)
        {
            std::shared_ptr<Dropped> held(new Dropped{pool, dropped, i});
            pool.enqueue([held = std::move(held), &ran] { ran = true; });
        }
        test::ClearLog();
        pool.clearQueue();
        EXPECT_EQ(dropped, (std::vector{0, 1, 2}));
        EXPECT_EQ(CountLog(5, source, "clearQueue", "enter"), 1U);
        EXPECT_EQ(CountLog(5, source, "clearQueue", "leave"), 1U);
        running.LetGo();
    }
    EXPECT_FALSE(ran);
    EXPECT_EQ(CountLog(5, source, body, "before running task\n"), 3U);
}

TEST_F(ThreadPool, DestructionIsLogged)
{
    {
        const Pool pool(2);
    }
    std::string steps;
    for (const test::LogLine& line : test::Log())
    {
        EXPECT_EQ(line.file, "yetanotherthreadpool.cpp");
        if (line.function == "~YetAnotherThreadPool")
        {
            steps += std::to_string(line.level) + " " + line.text + "\n";
        }
    }
    EXPECT_EQ(steps, "5 deconstructor enter\n"
                     "5 deconstructor waiting\n"
                     "5 waiting for join\n"
                     "5 joined\n"
                     "5 waiting for join\n"
                     "5 joined\n"
                     "5 deconstructor leave\n");
}

TEST_F(ThreadPool, ConstructorStopsTheWorkersThatDidStart)
{
    FailCalls(&threadCreation, 2, 1, EAGAIN);
    EXPECT_THROW(Pool{3}, std::system_error);
    EXPECT_EQ(CountLog(5, source, body, "exiting thread\n"), 2U);
    EXPECT_EQ(CountLog(5, source, "~YetAnotherThreadPool", "joined"), 2U);

    Pool pool(1);
    FailCalls(&threadCreation, 0, 1, EAGAIN);
    EXPECT_THROW(pool.makeNewWorkerThread(), std::system_error);
    pool.makeNewWorkerThread();
    std::latch together(2);
    pool.enqueue([&] { together.arrive_and_wait(); });
    pool.enqueue([&] { together.arrive_and_wait(); });
    together.wait();
}

TEST_F(ThreadPool, FailedJoinDoesNotEndTheProcess)
{
    std::atomic<int> ran{0};
    {
        Pool pool(3);
        Blocker running(pool);
        pool.enqueue([&] { ++ran; });
        FailCalls(&join, 0, 3, EINVAL);
        running.LetGo();
        pool.enqueue([&] { ++ran; });
    }
    FailCalls(&join, 0, 0, 0);
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(CountLog(5, source, body, "exiting thread\n"), 3U);
    EXPECT_EQ(CountLog(2, source, "~YetAnotherThreadPool", "EXCEPTION Invalid argument\n"), 1U);
    EXPECT_EQ(CountLog(5, source, "~YetAnotherThreadPool", "deconstructor leave"), 1U);
}

TEST_F(ThreadPool, WorkersLeaveSignalsToTheProgram)
{
    sigset_t blocked;
    {
        Pool pool(1);
        pool.enqueue([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    }
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0); // a crash stays one
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

TEST_F(ThreadPool, FailedLocks)
{
    test::SetLogThreshold(2); // so that the next lock is not the recorder's
    {
        Pool pool(1);
        for (void (*call)(Pool&) :
             {+[](Pool& p) { p.enqueue([] {}); }, +[](Pool& p) { p.clearQueue(); },
              +[](Pool& p) { p.makeNewWorkerThread(); }})
        {
            nextLockFails = EINVAL;
            EXPECT_THROW(call(pool), std::system_error);
        }
        pool.enqueue([] { nextLockFails = EINVAL; }); // the worker's next one
        EXPECT_TRUE(Works(pool));
        nextLockFails = EINVAL; // the destructor's
    }
    test::SetLogThreshold(1000);
    EXPECT_EQ(CountLog(1, source, body, "Exception in while: Invalid argument\n"), 1U);
    EXPECT_EQ(CountLog(2, source, "~YetAnotherThreadPool", "EXCEPTION Invalid argument\n"), 1U);
}

// A worker that looks at the queue again before it sleeps is not woken; one that failed to, is.
TEST_F(ThreadPool, WakesAWorkerThatFailedToLook)
{
    test::SetLogThreshold(2);
    {
        Pool pool(1);
        pool.enqueue(
            []
            {
                FailCalls(&condWait, 0, 0, 0);
                goodLocks = 1; // finds the queue empty
                nextLockFails = EINVAL;
            });
        EXPECT_TRUE(test::Eventually(
            []
            {
                return CountLog(1, source, body, "Exception in while: Invalid argument\n") == 1 &&
                       CountCalls(&condWait) == 1; // asleep
            }));
        EXPECT_TRUE(Works(pool));
    }
    test::SetLogThreshold(1000);
}

} // namespace
