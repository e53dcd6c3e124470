// Sends over the channel and fork(), with each kind of loop.

#include "bounded.hpp"
#include "log_recorder.hpp"
#include "loops.hpp"
#include "sanitizer.hpp"

#include <pthread.h>

#include <atomic>
#include <latch>
#include <thread>

namespace
{

using test::FunnelRuns;
using test::InChild;
using test::LoopThread;
using test::MakeLoop;
using test::Runs;

// In a child: no channel at first, then one of its own.
bool StartsAnew(MakeLoop make)
{
    const bool anew = !owc_tid_valid && !Runs();
    const LoopThread loop(make);
    const bool channel = Runs();
    const bool funnel = FunnelRuns();
    if (!anew || !channel || !funnel)
    {
        std::fprintf(stderr, "starts anew: %d, channel runs: %d, funnel runs: %d\n%s", anew,
                     channel, funnel, test::Describe(test::Log(2)).c_str());
    }
    return anew && channel && funnel;
}

bool ChildAndGrandchildWork(MakeLoop make)
{
    return InChild([=] { return StartsAnew(make) && InChild([=] { return StartsAnew(make); }); });
}

class ForkOverChannel : public test::Bounded, public testing::WithParamInterface<MakeLoop>
{
  protected:
    void SetUp() override
    {
        Bounded::SetUp();
        // The recorder's fork handlers must enclose the library's, which write lines.
        test::ClearLog();
    }
};

TEST_P(ForkOverChannel, WhileOthersSend)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    SKIP_WHERE_CHILDREN_CANNOT_START_THREADS();
    const LoopThread loop(GetParam());
    test::Senders senders{Runs, Runs, FunnelRuns};
    int failed = 0;
    for (int i = 0; i < test::manyForks; ++i)
    {
        failed += ChildAndGrandchildWork(GetParam()) ? 0 : 1;
    }
    EXPECT_EQ(senders.Stop(), 0);
    EXPECT_EQ(failed, 0);
    EXPECT_TRUE(Runs());
}

// Sends that wait for the loop's thread cannot end before its fork() does.
TEST_P(ForkOverChannel, OnTheLoopsThreadWhileOthersWaitForIt)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    SKIP_WHERE_CHILDREN_CANNOT_START_THREADS();
    struct Forks
    {
        MakeLoop make;
        int failed = 0;
        std::latch left{test::manyForks};
    } state{.make = GetParam()};
    const LoopThread loop(state.make);
    test::Senders senders{Runs, Runs, FunnelRuns};
    for (int i = 0; i < test::manyForks; ++i)
    {
        OneWayChannel_Execute(
            [](void*, void* data, unsigned long)
            {
                auto& all = *static_cast<Forks*>(data);
                all.failed += ChildAndGrandchildWork(all.make) ? 0 : 1;
                all.left.count_down();
                return 0;
            },
            &state, 0, 0);
    }
    state.left.wait();
    EXPECT_EQ(senders.Stop(), 0);
    EXPECT_EQ(state.failed, 0);
    EXPECT_TRUE(Runs());
}

// Its handlers are registered too late to take part in that fork.
TEST_P(ForkOverChannel, ThatBeganBeforeTheFirstSend)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    SKIP_WHERE_CHILDREN_CANNOT_START_THREADS();
    const MakeLoop make = GetParam();
    IN_FRESH_PROCESS({
        static std::atomic<bool> forking{false};
        pthread_atfork(
            []
            {
                if (!forking.exchange(true))
                {
                    test::Eventually([] { return std::atomic_ref(owc_tid_valid).load(); });
                }
            },
            nullptr, nullptr);
        const LoopThread loop(make);
        std::thread sender(
            []
            {
                EXPECT_TRUE(test::Eventually([] { return forking.load(); }));
                EXPECT_TRUE(Runs());
            });
        EXPECT_TRUE(InChild([=] { return StartsAnew(make); }));
        sender.join();
    });
}

TEST_P(ForkOverChannel, InsideAnItemIsReported)
{
    const MakeLoop make = GetParam();
    IN_FRESH_PROCESS({
        new LoopThread(make); // ends with the process
        std::thread sender([] { test::Send([] { InChild(Runs); }); });
        sender.detach();
        EXPECT_TRUE(test::Eventually(
            []
            {
                return test::CountLog(
                           1, 300, "HoldMainLockInFork",
                           "fork inside a work item waits for its own sender: deadlock\n") == 1U;
            }));
    });
}

INSTANTIATE_TEST_SUITE_P(Loops, ForkOverChannel, test::everyLoop, test::KindName);

} // namespace
