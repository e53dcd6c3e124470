// The funnel: order, exceptions, and which sends are refused.

#include "bounded.hpp"
#include "log_recorder.hpp"
#include "send.hpp"
#include "sleeps.hpp"

#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using test::CountLog;
constexpr auto Runs = test::FunnelRuns;
constexpr auto Send = test::FunnelSend;

constexpr unsigned int source = 300;
constexpr unsigned int alternate = 4711;

// The funnel serves other initialisers too: the first send of this program comes before main().
const pthread_t earlyFunnelThread = []
{
    pthread_t thread{};
    std::function<void()> work = [&] { thread = pthread_self(); };
    TF_init_and_send_work(work);
    return thread;
}();
const std::vector<test::LogLine> earlyLog = test::Log();

std::vector<std::string> Steps(const std::vector<test::LogLine>& lines)
{
    std::vector<std::string> steps;
    for (const test::LogLine& line : lines)
    {
        EXPECT_EQ(line.source, source);
        EXPECT_EQ(line.file, "threadfunnel.cpp");
        steps.push_back(std::to_string(line.level) + " " + line.function + ": " + line.text);
    }
    return steps;
}

class Funnel : public test::Bounded
{
  protected:
    void SetUp() override
    {
        Bounded::SetUp();
        test::ClearLog();
    }
    void TearDown() override
    {
        TF_set_alternate_log_source(0);
        Bounded::TearDown();
    }
};

TEST_F(Funnel, SendsOfAllThreadsRunOneByOneOnOneThread)
{
    constexpr int each = 500;
    int ran = 0; // plain on purpose: the items must not overlap
    const auto send = [&]
    {
        bool mine = false;
        Send(
            [&]
            {
                mine = pthread_equal(pthread_self(), earlyFunnelThread) != 0;
                ++ran;
            });
        return mine;
    };
    EXPECT_EQ(test::SendFromMany(each, send), 0);
    EXPECT_EQ(ran, 4 * each);
    EXPECT_TRUE(funnel_tid_valid);
    EXPECT_TRUE(pthread_equal(funnel_tid, earlyFunnelThread));
    TF_cond_lock();
    EXPECT_EQ(TF_function, nullptr);
    TF_cond_unlock();
    EXPECT_TRUE(test::Log(5).empty()) << test::Describe(test::Log(5));
}

TEST_F(Funnel, ItemThatSendsRunsDirectly)
{
    bool inner = false;
    Send(
        [&]
        {
            Send([&] { inner = pthread_equal(pthread_self(), earlyFunnelThread) != 0; });
            EXPECT_TRUE(inner);
            EXPECT_TRUE(TF_check_for_deadlock());
            Send([] { throw std::runtime_error("direct"); });
            EXPECT_THROW(Send([] { throw 7; }), int);
            Send(nullptr);
        });
    EXPECT_TRUE(inner);
    const std::string name = "TF_init_and_send_work";
    EXPECT_EQ(CountLog(5, source, name, "running direct because current thread is funnel thread\n"),
              4U);
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock A detected\n"), 1U);
    EXPECT_EQ(CountLog(2, source, name, "EXCEPTION direct\n"), 1U);
    EXPECT_EQ(CountLog(2, source, name,
                       std::string("EXCEPTION ") + std::bad_function_call().what() + "\n"),
              1U);
}

TEST_F(Funnel, ProtectedThreadIsRefused)
{
    TF_start_deadlock_protection();
    EXPECT_FALSE(Runs());
    std::thread([] { EXPECT_FALSE(TF_check_for_deadlock()); }).join();
    TF_end_deadlock_protection();
    EXPECT_TRUE(Runs());
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock B detected\n"), 1U);
    EXPECT_EQ(CountLog(1, source, "TF_init_and_send_work", "deadlock detected\n"), 1U);
    EXPECT_EQ(test::Log(5).size(), 2U);
}

TEST_F(Funnel, ChannelThreadIsRefused)
{
    owc_tid = pthread_self();
    owc_tid_valid = true;
    EXPECT_FALSE(Runs());
    TF_start_deadlock_protection();
    EXPECT_TRUE(TF_check_for_deadlock_in_callback());
    EXPECT_TRUE(TF_check_for_deadlock());
    TF_end_deadlock_protection();
    EXPECT_FALSE(TF_check_for_deadlock_in_callback());
    owc_tid_valid = false;
    EXPECT_TRUE(Runs());
    const std::string check = "1 TF_check_for_deadlock: ";
    EXPECT_THAT(Steps(test::Log()),
                testing::IsSupersetOf({check + "deadlock D detected\n",
                                       std::string("1 TF_init_and_send_work: deadlock detected\n"),
                                       std::string("1 TF_check_for_deadlock_in_callback: "
                                                   "deadlock E detected\n")}));
    EXPECT_THAT(Steps(test::Log()), testing::Contains(check + "deadlock D detected\n").Times(2));
    EXPECT_THAT(Steps(test::Log()), testing::Contains(check + "deadlock B detected\n").Times(1));
}

TEST_F(Funnel, CallbackLearnsThatTheFunnelThreadIsBlocked)
{
    bool blocked = false;
    Send(
        [&]
        {
            TF_start_deadlock_protection(); // as a send over the channel does
            std::thread([&] { blocked = TF_check_for_deadlock_in_callback(); }).join();
        });
    EXPECT_TRUE(blocked);
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock_in_callback", "deadlock C detected\n"),
              1U);
    EXPECT_FALSE(TF_check_for_deadlock_in_callback());
}

TEST_F(Funnel, ExceptionsStayOnTheFunnelThread)
{
    Send([] { throw std::runtime_error("of the item"); });
    Send(nullptr);
    Send([] { throw 7; });
    EXPECT_TRUE(Runs());
    EXPECT_TRUE(pthread_equal(funnel_tid, earlyFunnelThread));
    const std::string name = "TF_funnel_thread";
    EXPECT_EQ(CountLog(2, source, name, "EXCEPTION of the item\n"), 1U);
    EXPECT_EQ(CountLog(2, source, name,
                       std::string("EXCEPTION ") + std::bad_function_call().what() + "\n"),
              1U);
    EXPECT_EQ(CountLog(2, source, name, "EXCEPTION not a std::exception\n"), 1U);
    EXPECT_EQ(test::LogOf("EXCEPTION %s.%d.%s: %s\n").size(), 3U);
}

TEST_F(Funnel, AlternateSourceReceivesRefusalsAndExceptions)
{
    TF_set_alternate_log_source(alternate);
    EXPECT_EQ(TF_alternate_log_source, alternate);
    TF_start_deadlock_protection();
    EXPECT_FALSE(Runs());
    TF_end_deadlock_protection();
    Send([] { throw std::runtime_error("of the item"); });
    for (const unsigned int id : {source, alternate})
    {
        EXPECT_EQ(CountLog(1, id, "TF_check_for_deadlock", "deadlock B detected\n"), 1U);
        EXPECT_EQ(CountLog(1, id, "TF_init_and_send_work", "deadlock detected\n"), 1U);
        EXPECT_EQ(CountLog(2, id, "TF_funnel_thread", "EXCEPTION of the item\n"), 1U);
    }
    EXPECT_EQ(test::Log(5).size(), 6U);
}

TEST_F(Funnel, DemonstrationIsLogged)
{
    TF_poc();
    EXPECT_EQ(CountLog(9, source, "TF_poc", "enter"), 1U);
    EXPECT_EQ(CountLog(9, source, "operator()", "poc"), 1U);
    EXPECT_EQ(CountLog(9, source, "TF_poc", "leave"), 1U);
}

TEST_F(Funnel, MainLockKeepsSendsOut)
{
    std::atomic<bool> unlocked{false};
    std::atomic<bool> started{false};
    TF_lock();
    std::thread sender(
        [&]
        {
            started = true;
            Send([&] { EXPECT_TRUE(unlocked); });
        });
    EXPECT_TRUE(test::Eventually([&] { return started.load(); }));
    sched_yield();
    unlocked = true;
    TF_unlock();
    sender.join();
}

TEST_F(Funnel, ItemMayEndTheFunnelThread)
{
    IN_FRESH_PROCESS({
        Send([] { pthread_exit(nullptr); });
        EXPECT_TRUE(Runs());
        EXPECT_TRUE(Runs());
        EXPECT_TRUE(test::Eventually(
            [] { return CountLog(9, source, "~TF_context", "clear is_funnel_thread") == 1U; }));
        EXPECT_TRUE(Runs());
        EXPECT_EQ(CountLog(9, source, "TF_funnel_thread", "before loop"), 1U);
    });
}

TEST_F(Funnel, CancelledSenderIsEndedOnlyAfterItsItem)
{
    std::latch running(1);
    std::latch cancelled(1);
    std::atomic<bool> finished{false};
    std::atomic<bool> gone{false};
    std::thread sender(
        [&]
        {
            Send(
                [&]
                {
                    running.count_down();
                    cancelled.wait();
                    finished = true;
                });
            gone = finished.load();
            pthread_testcancel();
            ADD_FAILURE() << "not cancelled";
        });
    running.wait();
    pthread_cancel(sender.native_handle());
    cancelled.count_down();
    sender.join();
    EXPECT_TRUE(gone);
    EXPECT_TRUE(Runs());
}

TEST_F(Funnel, CancelledSenderThatIsRefusedLeavesNoLock)
{
    bool returned = false;
    std::thread(
        [&]
        {
            TF_start_deadlock_protection();
            pthread_cancel(pthread_self());
            EXPECT_FALSE(Runs());
            returned = true;
            TF_end_deadlock_protection();
        })
        .join();
    EXPECT_TRUE(returned);
    EXPECT_TRUE(Runs());
}

TEST_F(Funnel, ThreadLeavesSignalsToTheProgram)
{
    sigset_t blocked;
    Send([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGALRM, SIGRTMIN})
    {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0); // a crash stays one
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

// fork() stands in the same line.
TEST_F(Funnel, SendsInTheOrderOfArrival)
{
    constexpr int senders = 6;
    test::BusyFunnel busy;
    std::vector<int> order;
    std::vector<std::jthread> threads;
    for (int i = 0; i < senders; ++i)
    {
        std::atomic<pid_t> thread{0};
        threads.emplace_back(
            [&, i]
            {
                thread = gettid();
                if (i == senders / 2)
                {
                    EXPECT_EQ(test::ExitOfChild([&] { return static_cast<int>(order.size()); }), i);
                    return;
                }
                Send([&, i] { order.push_back(i); });
            });
        EXPECT_TRUE(test::Eventually([&] { return thread != 0 && test::Sleeps(thread); }));
    }
    busy.LetGo();
    threads.clear();
    EXPECT_THAT(order, testing::ElementsAre(0, 1, 2, 4, 5));
}

TEST_F(Funnel, FirstSendLogsItsSteps)
{
    const std::vector<std::string> expected{
        "9 TF_start_funnel_thread_if_needed: starting funnel thread",
        "9 TF_funnel_thread: enter",
        "9 TF_get_or_allocate_ctx: enter",
        "9 TF_context: enter",
        "9 TF_get_or_allocate_ctx: leave",
        "9 TF_funnel_thread: before startup broadcast",
        "9 TF_funnel_thread: before loop"};
    std::vector<std::string> steps = Steps(earlyLog);
    steps.resize(expected.size());
    EXPECT_EQ(steps, expected);
}

} // namespace
