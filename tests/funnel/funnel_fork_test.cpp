// The funnel and fork(): at any moment, on any thread, with and without its handlers.

#include "bounded.hpp"
#include "faults.h"
#include "log_recorder.hpp"
#include "sanitizer.hpp"
#include "send.hpp"

#include <pthread.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

namespace
{

using test::InChild;

std::atomic<int> registrations{0};
std::latch reached(1);
std::latch mayGoOn(1);

bool SendRuns()
{
    bool elsewhere = false;
    test::FunnelSend([&, self = pthread_self()]
                     { elsewhere = pthread_equal(self, pthread_self()) == 0; });
    return elsewhere;
}

void StopRegistration(void (*)())
{
    reached.count_down();
    mayGoOn.wait();
}

class FunnelFork : public test::Bounded
{
  protected:
    void SetUp() override
    {
        Bounded::SetUp();
        test::ClearLog();
    }
};

TEST_F(FunnelFork, BothSidesKeepWorking)
{
    ASSERT_TRUE(SendRuns());
    owc_tid = pthread_self();
    owc_tid_valid = true;
    const pthread_t before = funnel_tid;
    test::ClearLog();
    EXPECT_TRUE(InChild(
        []
        {
            const bool cleared = !owc_tid_valid && !funnel_tid_valid;
            return cleared && SendRuns() && funnel_tid_valid && InChild(SendRuns) && SendRuns();
        }));
    const std::vector<test::LogLine> lines = test::Log();
    ASSERT_EQ(lines.size(), 3U) << test::Describe(lines);
    EXPECT_EQ(lines[0].function + ": " + lines[0].text, "TF_atfork_prepare: enter");
    EXPECT_EQ(lines[1].function + ": " + lines[1].text, "TF_atfork_prepare: got all three locks");
    EXPECT_EQ(lines[2].function + ": " + lines[2].text, "TF_atfork_parent: enter");
    EXPECT_TRUE(owc_tid_valid);
    owc_tid_valid = false;
    EXPECT_TRUE(SendRuns());
    EXPECT_TRUE(pthread_equal(funnel_tid, before));
    // Called by hand the handler releases what the caller took.
    TF_lock();
    TF_deadlock_lock();
    TF_cond_lock();
    TF_atfork_parent();
    EXPECT_TRUE(InChild(SendRuns) && SendRuns());
}

TEST_F(FunnelFork, ChildLogsWhatItForgets)
{
    ASSERT_TRUE(SendRuns());
    test::ClearLog();
    EXPECT_TRUE(InChild(
        []
        {
            std::string steps;
            for (const test::LogLine& line : test::Log())
            {
                steps += std::to_string(line.level) + " " + line.function + ": " + line.text + "\n";
            }
            const std::string expected =
                "9 TF_atfork_prepare: enter\n"
                "9 TF_atfork_prepare: got all three locks\n"
                "9 TF_atfork_child: enter\n"
                "9 TF_atfork_child: before free funnel_context\n"
                "9 ~TF_context: enter\n"
                "9 ~TF_context: clear is_funnel_thread\n"
                "9 TF_atfork_child: before set funnel_initialized to false\n";
            EXPECT_EQ(steps, expected);
            return steps == expected;
        }));
}

TEST_F(FunnelFork, ManyTimesWhileOthersSend)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    test::Senders senders{SendRuns, SendRuns, SendRuns, SendRuns};
    int failed = 0;
    for (int i = 0; i < test::manyForks; ++i)
    {
        failed += InChild([] { return SendRuns() && InChild(SendRuns) && SendRuns(); }) ? 0 : 1;
    }
    EXPECT_EQ(senders.Stop(), 0);
    EXPECT_EQ(failed, 0);
    EXPECT_TRUE(SendRuns());
}

// The mark of another thread does not concern the child, which may get its id for a new one.
TEST_F(FunnelFork, KeepsTheForkingThreadsMarkOnly)
{
    ASSERT_TRUE(SendRuns());
    TF_start_deadlock_protection();
    EXPECT_TRUE(InChild([] { return !SendRuns(); }));
    std::latch marked(1);
    std::latch done(1);
    std::thread other(
        [&]
        {
            TF_start_deadlock_protection();
            marked.count_down();
            done.wait();
        });
    marked.wait();
    EXPECT_TRUE(InChild(
        [id = other.native_handle()]
        {
            owc_tid = id;
            owc_tid_valid = true;
            return !TF_check_for_deadlock_in_callback();
        }));
    done.count_down();
    other.join();
    TF_end_deadlock_protection();
}

// The handlers are not in place yet while the first send starts the thread, and it holds every
// lock.
TEST_F(FunnelFork, DuringTheVeryFirstSend)
{
    IN_FRESH_PROCESS({
        beforeRegistration = StopRegistration;
        std::thread sender([] { EXPECT_TRUE(SendRuns()); });
        reached.wait();
        beforeRegistration = nullptr;
        EXPECT_TRUE(InChild([] { return SendRuns() && InChild(SendRuns) && SendRuns(); }));
        mayGoOn.count_down();
        sender.join();
        EXPECT_TRUE(InChild(SendRuns));
    });
}

// _Fork() and the like run no handlers at all.
TEST_F(FunnelFork, WithoutHandlersDuringASend)
{
    if (test::addressSanitizer || test::threadSanitizer)
    {
        GTEST_SKIP() << "the sanitizer's own locks do not survive a fork without handlers";
    }
    EXPECT_TRUE(SendRuns());
    test::BusyFunnel busy;
    EXPECT_TRUE(InChild([] { return SendRuns() && InChild(SendRuns); }, _Fork));
    busy.LetGo();
    EXPECT_TRUE(SendRuns());
}

TEST_F(FunnelFork, HandlersAreRegisteredOncePerLineage)
{
    IN_FRESH_PROCESS({
        beforeRegistration = [](void (*prepare)())
        { registrations += prepare == TF_atfork_prepare ? 1 : 0; };
        EXPECT_TRUE(SendRuns());
        EXPECT_EQ(registrations, 1);
        EXPECT_TRUE(InChild([] { return SendRuns() && InChild(SendRuns) && registrations == 1; }));
    });
}

TEST_F(FunnelFork, InsideAnItemIsReported)
{
    IN_FRESH_PROCESS({
        std::thread sender([] { test::FunnelSend([] { InChild([] { return true; }); }); });
        EXPECT_TRUE(test::Eventually(
            []
            {
                return test::CountLog(
                           1, 300, "HoldMainLockInFork",
                           "fork inside a work item waits for its own sender: deadlock\n") == 1U;
            }));
        sender.detach();
    });
}

} // namespace
