// The funnel when calls of the C library fail: what it logs, and that it carries on where it can.

#include "bounded.hpp"
#include "faults.h"
#include "log_recorder.hpp"
#include "send.hpp"

#include <pthread.h>

#include <cerrno>
#include <string>
#include <thread>

namespace
{

using test::CountLog;
constexpr auto Runs = test::FunnelRuns;

constexpr unsigned int source = 300;

// The lines up to level 2, one each.
std::string Complaints()
{
    std::string all;
    for (const test::LogLine& line : test::Log(2))
    {
        EXPECT_EQ(line.source, source);
        all += std::to_string(line.level) + " " + line.function + ": " + line.text +
               (line.text.ends_with('\n') ? "" : "\n");
    }
    return all;
}

using FunnelFailure = test::Bounded;

TEST_F(FunnelFailure, ThreadThatCannotBeCreated)
{
    IN_FRESH_PROCESS({
        FailCalls(&threadCreation, 0, 2, EAGAIN);
        for (int i = 0; i < 2; ++i)
        {
            test::ClearLog();
            EXPECT_FALSE(Runs());
            EXPECT_EQ(Complaints(), "1 TF_start_funnel_thread: pthread_create irv=11\n"
                                    "1 TF_init_and_send_work: funnel thread didn't start\n");
        }
        test::ClearLog();
        EXPECT_TRUE(Runs());
        EXPECT_EQ(Complaints(), "");
    });
}

TEST_F(FunnelFailure, KeyIsCreatedAtTheTenthAttempt)
{
    IN_FRESH_PROCESS({
        FailCalls(&keyCreation, 0, 9, EAGAIN);
        EXPECT_TRUE(Runs());
        EXPECT_EQ(CountCalls(&keyCreation), 10);
        EXPECT_EQ(Complaints(), "");
    });
}

TEST_F(FunnelFailure, KeyThatCannotBeCreated)
{
    IN_FRESH_PROCESS({
        const std::string start = "1 TF_setup_key_and_atfork: key is not valid\n"
                                  "1 TF_get_or_allocate_ctx: unable to setup key and atfork\n"
                                  "1 TF_funnel_thread: pcontext is NULL\n"
                                  "1 TF_init_and_send_work: funnel thread didn't start\n";
        FailCalls(&keyCreation, 0, 1000, EAGAIN);
        EXPECT_FALSE(Runs());
        EXPECT_EQ(CountCalls(&keyCreation), 10);
        EXPECT_EQ(Complaints(), "1 TF_call_me_once: key creation failed\n" + start);
        // The key is not tried again, the thread is.
        test::ClearLog();
        EXPECT_FALSE(Runs());
        EXPECT_EQ(Complaints(), start);
        EXPECT_EQ(CountCalls(&keyCreation), 10);
        EXPECT_EQ(CountCalls(&threadCreation), 2);
        test::ClearLog();
        EXPECT_FALSE(TF_setup_key_and_atfork());
        EXPECT_EQ(Complaints(), "1 TF_setup_key_and_atfork: key is not valid\n");
        // A thread that could not serve leaves nothing behind, not even its name.
        EXPECT_TRUE(test::Eventually(
            []
            {
                TF_deadlock_lock();
                const bool valid = funnel_tid_valid;
                TF_deadlock_unlock();
                return !valid;
            }));
    });
}

TEST_F(FunnelFailure, HandlersThatCannotBeRegistered)
{
    IN_FRESH_PROCESS({
        FailCalls(&handlerRegistration, 0, 1, ENOMEM);
        EXPECT_TRUE(TF_setup_key_and_atfork());
        EXPECT_EQ(Complaints(), "1 TF_call_me_once: pthread_atfork failed, irv=12\n");
        EXPECT_TRUE(Runs());
        // Nothing is told to the child, which finds out by itself.
        EXPECT_TRUE(test::InChild(Runs));
        EXPECT_TRUE(Runs());
    });
}

TEST_F(FunnelFailure, ConditionCalls)
{
    ASSERT_TRUE(Runs());
    test::ClearLog();
    FailCalls(&condWait, 0, 5, EINVAL);
    while (CountCalls(&condWait) <= 5)
    {
        EXPECT_TRUE(Runs());
    }
    EXPECT_EQ(CountLog(1, source, "TF_do_wait", "pthread_cond_wait irv=22"), 5U);
    EXPECT_EQ(test::Log(2).size(), 5U);
    EXPECT_TRUE(Runs());
}

TEST_F(FunnelFailure, Broadcasts)
{
    ASSERT_TRUE(Runs());
    test::ClearLog();
    FailCalls(&broadcast, 0, 1, EINVAL); // of the post
    EXPECT_TRUE(Runs());
    test::FunnelSend([] { FailCalls(&broadcast, 0, 1, EINVAL); }); // of the completion
    EXPECT_TRUE(Runs());
    EXPECT_EQ(CountLog(1, source, "TF_do_broadcast", "pthread_cond_broadcast irv=22"), 2U);
    EXPECT_EQ(test::Log(2).size(), 2U);
}

TEST_F(FunnelFailure, LocksReportAndCarryOn)
{
    struct Pair
    {
        void (*lock)();
        void (*unlock)();
        std::string name;
    };
    for (const Pair& pair :
         {Pair{TF_lock, TF_unlock, "TF"}, Pair{TF_cond_lock, TF_cond_unlock, "TF_cond"},
          Pair{TF_deadlock_lock, TF_deadlock_unlock, "TF_deadlock"}})
    {
        test::ClearLog();
        nextLockFails = EINVAL;
        pair.lock();
        pair.lock();
        nextUnlockFails = EPERM;
        pair.unlock();
        pair.unlock();
        EXPECT_EQ(Complaints(), "1 " + pair.name + "_lock: pthread_mutex_lock irv=22\n" + "1 " +
                                    pair.name + "_unlock: pthread_mutex_unlock irv=1\n");
    }
    EXPECT_TRUE(Runs());
}

} // namespace
