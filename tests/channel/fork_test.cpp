// fork() with a channel at work: both sides go on, again and again.

#include "channel_loops.hpp"
#include "faults.h"
#include "in_child.hpp"
#include "log_recorder.hpp"
#include "sanitizer.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{

using test::boundSeconds;
using test::Channel;
using test::ExitOfChild;

// The recorder's own fork handlers are registered with its first use. The channel's come later and
// so find it unlocked in a child.
const bool recorderFirst = (test::ClearLog(), true);

template <class Loop>
bool Runs(Loop& loop)
{
    bool ran = false;
    return test::Post([&] { ran = true; }) == 0 && loop.Run([&] { return ran; });
}

// In a child: its channel is gone, and a fresh one serves its own loop. A grandchild does the same,
// which shows that the fork handlers do not pile up.
template <class Loop>
int UseFreshChannel(int generations)
{
    if (test::CountLog(4, 300, "~OneWayChannel",
                       "Destructor. fork happened? (NOT Recommended to fork with multiple "
                       "threads)") != 1)
    {
        return 1;
    }
    test::ClearLog();
    bool registered = true;
    bool valid = true;
    pthread_t tid{};
    OneWayChannel_IsRegistered(&registered, &valid, &tid);
    if (registered || valid || OneWayChannel_Execute(nullptr, nullptr, 0, 0) != 3)
    {
        return 2;
    }
    Loop loop;
    if (loop.Register(nullptr) != 0 || !Runs(loop))
    {
        return 3;
    }
    return generations == 0
               ? 0
               : 10 * ExitOfChild([=] { return UseFreshChannel<Loop>(generations - 1); });
}

template <class Loop>
class ForkTest : public testing::Test
{
  protected:
    ForkTest()
    {
        test::ClearLog();
        test::SetLogThreshold(4);
        EXPECT_EQ(loop.Register(nullptr), 0);
    }
    ~ForkTest() override
    {
        OneWayChannel_Unregister();
        test::Drain();
        test::SetLogThreshold(1000);
    }

    Loop loop;
};

TYPED_TEST_SUITE(ForkTest, test::AllLoops);

class Producers
{
  public:
    Producers()
    {
        for (std::thread& thread : threads)
        {
            thread = std::thread(
                [this]
                {
                    while (!stop && test::Post([this] { ++ran; }) == 0)
                    {
                        std::this_thread::yield();
                    }
                });
        }
    }
    ~Producers()
    {
        stop = true;
        OneWayChannel_Unregister(); // one may be waiting for room
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        test::Drain();
    }
    Producers(const Producers&) = delete;
    Producers& operator=(const Producers&) = delete;

    std::atomic<long> ran{0};

  private:
    std::atomic<bool> stop{false};
    std::thread threads[2];
};

TYPED_TEST(ForkTest, LeavesBothSidesWorking)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    Producers producers;
    for (int round = 0; round < test::manyForks; ++round)
    {
        ASSERT_EQ(ExitOfChild([] { return UseFreshChannel<TypeParam>(1); }), 0) << round;
        ASSERT_TRUE(
            this->loop.Run([&, more = producers.ran + 100] { return producers.ran >= more; }))
            << round;
    }
}

// The loop's thread may be anywhere when another one forks.
TYPED_TEST(ForkTest, MayComeFromAnotherThread)
{
    SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK();
    Producers producers;
    std::atomic<bool> stop{false};
    std::thread forking(
        [&]
        {
            for (int round = 0; round < test::manyForks && !stop; ++round)
            {
                EXPECT_EQ(ExitOfChild([] { return UseFreshChannel<TypeParam>(0); }), 0) << round;
            }
            stop = true;
        });
    EXPECT_TRUE(this->loop.Run([&] { return stop.load(); }));
    stop = true;
    forking.join();
    EXPECT_TRUE(this->loop.Run([&, more = producers.ran + 100] { return producers.ran >= more; }));
}

// Its function goes on in the child and the messages behind it do not.
TYPED_TEST(ForkTest, MayComeFromAMessage)
{
    int inChild = -1;
    int behind = 0;
    pid_t child = 0;
    Channel().Execute(
        [&](void*, void*, unsigned long)
        {
            child = fork();
            if (child == 0)
            {
                alarm(boundSeconds);
                inChild = UseFreshChannel<TypeParam>(1);
            }
            return 0;
        },
        std::malloc(16), 16, true);
    test::Post([&] { ++behind; });
    const bool done = this->loop.Run([&] { return inChild >= 0 || behind == 1; });
    if (child == 0)
    {
        _exit(done && behind == 0 ? inChild : 4);
    }
    EXPECT_EQ(behind, 1);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(Runs(this->loop));
}

// What queued functions hold is the parent's, in a child of the function that runs as well.
TYPED_TEST(ForkTest, DestroysNothingInTheChild)
{
    struct Held
    {
        ~Held() { ++destroyed; }
        int& destroyed;
    };
    int destroyed = 0;
    pid_t child = -1;
    const auto post = [&](std::function<void()> work)
    {
        test::Post([held = std::shared_ptr<Held>(new Held{destroyed}), work = std::move(work)]
                   { work(); });
    };
    post([&] { child = fork(); });
    post([] {});
    EXPECT_EQ(ExitOfChild([&] { return destroyed; }), 0);
    EXPECT_EQ(destroyed, 0);
    EXPECT_TRUE(this->loop.Run([&] { return child == 0 || destroyed == 2; }));
    if (child == 0)
    {
        _exit(destroyed);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

using ForkWithAsio = ForkTest<test::AsioLoop>;

TEST_F(ForkWithAsio, LetsTheChildKeepItsContext)
{
    loop.io.notify_fork(boost::asio::io_context::fork_prepare);
    EXPECT_EQ(ExitOfChild(
                  [&]
                  {
                      loop.io.notify_fork(boost::asio::io_context::fork_child);
                      loop.io.poll();
                      return UseFreshChannel<test::AsioLoop>(0) != 0     ? 1
                             : loop.Register(nullptr) == 0 && Runs(loop) ? 0
                                                                         : 2;
                  }),
              0);
    loop.io.notify_fork(boost::asio::io_context::fork_parent);
    EXPECT_TRUE(Runs(loop));
}

using ForkWithZLoop = ForkTest<test::ZLoop>;

// The child's copy of the reactor still has the parent's poller.
TEST_F(ForkWithZLoop, LetsTheChildKeepItsReactor)
{
    EXPECT_EQ(ExitOfChild([&] { return loop.Register(nullptr) == 0 && Runs(loop) ? 0 : 1; }), 0);
    EXPECT_TRUE(Runs(loop));
}

using ForkWithSdEvent = ForkTest<test::SdEventLoop>;

TEST_F(ForkWithSdEvent, RegistersAFlatSdEventOncePerLineage)
{
    const auto enroll = []
    {
        const test::SdEventLoop own;
        return OneWayChannel_RegisterSDEvent(own.raw, nullptr);
    };
    EXPECT_EQ(ExitOfChild([&] { return enroll() == 5 ? 5 : ExitOfChild(enroll); }), 2);
}

// In a child, whose channel is yet to be made.
TEST_F(ForkWithSdEvent, ChannelWithoutAPipeIsTriedAgain)
{
    EXPECT_EQ(
        ExitOfChild(
            []
            {
                test::ClearLog();
                FailCalls(&pipeCreation, 0, 1, EMFILE);
                zloop_t* reactor = zloop_new();
                if (OneWayChannel_RegisterZLoop(reactor, nullptr) != 5)
                {
                    return 1;
                }
                FailCalls(&pipeCreation, 0, 1, EMFILE);
                int fd = -1;
                try
                {
                    OneWayChannel_GetChannelFDAndSelfRegister(&fd, nullptr);
                    return 2;
                }
                catch (const std::runtime_error& e)
                {
                    if (e.what() != std::string("Error in pipe creation OneWayChannel"))
                    {
                        return 3;
                    }
                }
                const bool told =
                    test::CountLog(1, 300, "OneWayChannel", "Pipe creation failed : -1") == 2 &&
                    test::CountLog(1, 300, "OneWayChannel_RegisterZLoop",
                                   "Error in Register : Error in pipe creation OneWayChannel") == 1;
                OneWayChannel_RegisterZLoop(reactor, nullptr);
                return told && OneWayChannel_Execute(nullptr, nullptr, 0, 0) == 0 ? 0 : 4;
            }),
        0);
}

} // namespace
