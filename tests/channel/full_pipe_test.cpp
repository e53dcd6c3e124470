// More messages than the pipe holds triggers for.

#include "channel_loops.hpp"
#include "faults.h"
#include "log_recorder.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace
{

using test::Channel;
using test::TriggerBytes;

int Capacity()
{
    return fcntl(Channel().pipeFds[1], F_GETPIPE_SZ);
}

class Threads
{
  public:
    template <class Work>
    Threads(int count, Work work)
    {
        for (int i = 0; i < count; ++i)
        {
            threads.emplace_back(work);
        }
    }
    void Join()
    {
        std::for_each(threads.begin(), threads.end(), [](std::thread& t) { t.join(); });
    }

  private:
    std::vector<std::thread> threads;
};

template <class Loop>
class FullPipe : public testing::Test
{
  protected:
    FullPipe()
    {
        Channel();
        test::SetLogThreshold(4);
        test::ClearLog();
    }
    ~FullPipe() override
    {
        test::Drain();
        EXPECT_EQ(test::Describe(test::Log(4)), "");
        test::SetLogThreshold(1000);
    }
};

TYPED_TEST_SUITE(FullPipe, test::AllLoops);

// So that no producer ends before it has to wait.
constexpr int moreThanThereIsRoomFor = 33000;

// As long as nobody drains, and no longer: nothing is lost, every message has its trigger, and no
// more is queued than the pipe has triggers and there are producers.
TYPED_TEST(FullPipe, HoldsProducersBack)
{
    static constexpr int producers = 4;
    static constexpr long each = moreThanThereIsRoomFor;
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    FailCalls(&written, 0, 0, 0);
    std::atomic<long> ran{0};
    std::atomic<long> started{0};
    std::atomic<long> largest{0};
    Threads threads(producers,
                    [&]
                    {
                        for (long n = 0; n < each; ++n)
                        {
                            const long queued = ++started - ran;
                            largest = std::max(largest.load(), queued);
                            EXPECT_EQ(test::Post([&] { ++ran; }), 0);
                        }
                    });
    EXPECT_TRUE(bmcbus::testing::Until(
        [&]
        {
            // Who waits does not wait with the lock.
            const std::lock_guard lock(infrautils::oneWayChannelOperationMutex);
            return Channel().mbQueue.size() == static_cast<size_t>(Capacity() / 2 + producers);
        }));
    EXPECT_EQ(TriggerBytes(), Capacity());
    EXPECT_TRUE(loop.Run([&] { return ran == producers * each; }));
    threads.Join();
    EXPECT_LE(largest, Capacity() / 2 + 2 * producers);
    EXPECT_EQ(CountCalls(&written), producers * each);
}

TYPED_TEST(FullPipe, NeverHoldsTheLoopsThread)
{
    static constexpr int count = 40000;
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    std::vector<int> ran;
    for (int i = 0; i < count; ++i)
    {
        ASSERT_EQ(test::Post([&, i] { ran.push_back(i); }), 0);
    }
    EXPECT_EQ(TriggerBytes(), Capacity());
    EXPECT_TRUE(loop.Run([&] { return ran.size() == count; }));
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));

    int left = count;
    const std::function<void()> again = [&]
    {
        if (--left > 0)
        {
            EXPECT_EQ(test::Post(again), 0);
        }
    };
    ASSERT_EQ(test::Post(again), 0);
    EXPECT_TRUE(loop.Run([&] { return left == 0; }));
}

// While a message that posts keeps the loop in one drain, producers go on as soon as it is over.
TYPED_TEST(FullPipe, SharesTheLoopWithProducers)
{
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> ran{0};
    Threads threads(2,
                    [&]
                    {
                        while (!stop)
                        {
                            test::Post([&] { test::Post([&] { ++ran; }); });
                        }
                    });
    EXPECT_TRUE(loop.Run([&] { return ran > 100000; }));
    stop = true;
    test::SetLogThreshold(3);   // one may be about to post, and is told that nobody listens
    OneWayChannel_Unregister(); // one may be waiting for room
    threads.Join();
    test::Drain();
}

// A trigger that a signal interrupts is written all the same, and a look at the full pipe is
// repeated.
TYPED_TEST(FullPipe, SignalsAreNoFailures)
{
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    int ran = 0;
    int posted = 0;
    for (; TriggerBytes() < Capacity(); ++posted)
    {
        ASSERT_EQ(test::Post([&] { ++ran; }), 0);
    }
    for (const int signals : {1, 2, 3})
    {
        FailCalls(&interruption, 0, signals, EINTR);
        EXPECT_EQ(test::Post([&] { ++ran; }), 0);
        FailCalls(&interruption, 0, 0, 0);
        ++posted;
    }
    EXPECT_TRUE(loop.Run([&] { return ran == posted; }));
    FailCalls(&interruption, 0, 2, EINTR);
    EXPECT_EQ(test::Post([&] { ++ran; }), 0);
    EXPECT_GE(CountCalls(&interruption), 2);
    EXPECT_TRUE(loop.Run([&] { return ran == posted + 1; }));
}

// A loop that is woken once for a burst: one trigger, the same order, the same bound.
TYPED_TEST(FullPipe, IsFarAwayWhereOneWakeUpServesABurst)
{
    static constexpr int producers = 4;
    static constexpr int each = moreThanThereIsRoomFor;
    TypeParam loop;
    EXPECT_EQ(OneWayChannel_WakeOncePerBurst(), 3);
    test::ClearLog();
    ASSERT_EQ(loop.Register(nullptr), 0);
    ASSERT_EQ(OneWayChannel_WakeOncePerBurst(), 0);
    std::vector<int> ran;
    const auto post = [&](int number)
    { return test::Post([&, number] { ran.push_back(number); }); };
    for (int i = 0; i < each; ++i)
    {
        ASSERT_EQ(post(i), 0);
    }
    EXPECT_EQ(TriggerBytes(), 2);
    EXPECT_TRUE(loop.Run([&] { return ran.size() == each; }));
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
    EXPECT_EQ(TriggerBytes(), 0);

    // Also after a trigger that could not be written, and after a message that throws.
    FailCalls(&writing, 0, 1, EIO);
    EXPECT_EQ(post(each), 6);
    test::ClearLog();
    EXPECT_EQ(post(each + 1), 0);
    EXPECT_TRUE(loop.Run([&] { return ran.size() == each + 2; }));

    std::atomic<int> count{0};
    Threads threads(producers,
                    [&]
                    {
                        for (int n = 0; n < each; ++n)
                        {
                            EXPECT_EQ(test::Post([&] { ++count; }), 0);
                        }
                    });
    EXPECT_TRUE(bmcbus::testing::Until(
        [&]
        {
            const std::lock_guard lock(infrautils::oneWayChannelOperationMutex);
            return Channel().mbQueue.size() == static_cast<size_t>(Capacity() / 2 + producers);
        }));
    EXPECT_TRUE(loop.Run([&] { return count == producers * each; }));
    threads.Join();
}

using FullPipeOfOwnLoop = FullPipe<test::PollLoop>;

TEST_F(FullPipeOfOwnLoop, FreesWaitingProducersWhenTheRegistrationEnds)
{
    for (const bool once : {false, true})
    {
        test::PollLoop loop;
        loop.Register(nullptr);
        EXPECT_TRUE(!once || OneWayChannel_WakeOncePerBurst() == 0);
        test::SetLogThreshold(3);
        Threads threads(3,
                        []
                        {
                            while (test::Post([] {}) == 0)
                            {
                            }
                        });
        EXPECT_TRUE(bmcbus::testing::Until(
            []
            {
                const std::lock_guard lock(infrautils::oneWayChannelOperationMutex);
                return Channel().mbQueue.size() == static_cast<size_t>(Capacity() / 2 + 3);
            }));
        OneWayChannel_Unregister();
        threads.Join();
        test::Drain();
    }
}

// Also where a pipe is small, or made so while triggers are in it; the smallest is one page.
TEST_F(FullPipeOfOwnLoop, TakesTheRoomThatThereIs)
{
    const int usual = Capacity();
    test::PollLoop loop;
    loop.Register(nullptr);
    int ran = 0;
    const auto post = [&](int count)
    {
        for (int i = 0; i < count; ++i)
        {
            ASSERT_EQ(test::Post([&] { ++ran; }), 0);
        }
    };
    post(1);
    ASSERT_GT(fcntl(loop.fd, F_SETPIPE_SZ, 1), 0);
    post(5000);
    EXPECT_EQ(TriggerBytes(), Capacity());
    EXPECT_TRUE(loop.Run([&] { return ran == 5001 && TriggerBytes() == 0; }));
    ASSERT_EQ(fcntl(loop.fd, F_SETPIPE_SZ, usual), usual);

    // A page read in part is no room yet.
    post(usual / 2);
    EXPECT_EQ(OneWayChannel_Process(loop.fd), 0);
    post(100);
    EXPECT_EQ(TriggerBytes(), usual - 32);
    EXPECT_TRUE(loop.Run([&] { return ran == 5101 + usual / 2 && TriggerBytes() == 0; }));
    EXPECT_EQ(fcntl(Channel().pipeFds[1], F_GETFL) & O_NONBLOCK, 0);
}

} // namespace
