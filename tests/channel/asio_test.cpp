// The descriptor that asio owns, and the handlers that outlive a registration.

#include "channel_loops.hpp"
#include "log_recorder.hpp"
#include "no_descriptors.hpp"
#include "sanitizer.hpp"

#include <boost/asio/post.hpp>
#include <fcntl.h>

#include <filesystem>
#include <memory>
#include <thread>

namespace
{

using boost::asio::io_context;
using test::AsioLoop;
using test::Channel;

class AsioTest : public testing::Test
{
  protected:
    AsioTest()
    {
        Channel();
        test::ClearLog();
    }
    ~AsioTest() override
    {
        test::Drain();
        EXPECT_EQ(test::Describe(test::Log(4)), "");
    }

    static bool Blocks() { return (fcntl(Channel().pipeFds[0], F_GETFL) & O_NONBLOCK) == 0; }

    static long OpenDescriptors()
    {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }
};

// The pipe blocks again, and no descriptor stays behind, whichever of both ends first.
TEST_F(AsioTest, GivesEverythingBack)
{
    const long before = OpenDescriptors();
    for (int round = 0; round < 6; ++round)
    {
        auto io = std::make_unique<io_context>();
        ASSERT_EQ(Channel().RegisterIOContext(*io, nullptr, {}), 0);
        EXPECT_FALSE(Blocks());
        bool ran = false;
        test::Post([&] { ran = true; });
        while (round % 2 == 0 && !ran)
        {
            io->run_one();
        }
        if (round % 3 == 0)
        {
            io.reset();
        }
        OneWayChannel_Unregister();
        EXPECT_TRUE(Blocks());
        io.reset();
        test::Drain();
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

// The watch stays armed after Unregister; when it fires it runs nothing and disturbs nobody.
TEST_F(AsioTest, KeepsAnEndedRegistrationApartFromTheNext)
{
    AsioLoop old;
    ASSERT_EQ(old.Register(nullptr), 0);
    OneWayChannel_Unregister();
    EXPECT_EQ(old.io.poll(), 0U);
    EXPECT_FALSE(old.io.stopped());
    const auto use = [&](auto& next)
    {
        ASSERT_EQ(next.Register(nullptr), 0);
        int ran = 0;
        test::Post([&] { ++ran; });
        old.io.restart();
        old.io.poll();
        EXPECT_EQ(ran, 0);
        EXPECT_TRUE(next.Run([&] { return ran == 1; }));
        OneWayChannel_Unregister();
    };
    AsioLoop other;
    use(other);
    test::PollLoop own;
    use(own);
}

TEST_F(AsioTest, RegistersAgainOnTheSameContext)
{
    AsioLoop loop;
    int ran = 0;
    for (int round = 1; round <= 5; ++round)
    {
        ASSERT_EQ(loop.Register(nullptr), 0);
        test::Post([&] { ++ran; });
        if (round % 2 == 0)
        {
            OneWayChannel_Unregister();
            ASSERT_EQ(loop.Register(nullptr), 0);
        }
        EXPECT_TRUE(loop.Run([&] { return ran == round; }));
        OneWayChannel_Unregister();
    }
}

// The old context still runs on its own thread while the next registration is at work.
TEST_F(AsioTest, LeavesTheOldContextToItsThread)
{
    if (BMCBUS_ASIO_DISABLE_THREADS == 1)
    {
        GTEST_SKIP() << "an asio without locks runs on one thread of the process";
    }
    AsioLoop old;
    ASSERT_EQ(old.Register(nullptr), 0);
    test::Post([] { OneWayChannel_Unregister(); });
    std::atomic<bool> stop{false};
    std::thread thread(
        [&]
        {
            while (!stop)
            {
                old.io.restart();
                old.io.poll();
            }
        });
    bool registered = true;
    EXPECT_TRUE(bmcbus::testing::Until(
        [&]
        {
            bool valid = false;
            pthread_t tid{};
            OneWayChannel_IsRegistered(&registered, &valid, &tid);
            return !registered;
        }));
    AsioLoop next;
    ASSERT_EQ(next.Register(nullptr), 0);
    int ran = 0;
    std::thread producer(
        [&]
        {
            for (int i = 0; i < 1000; ++i)
            {
                test::Post([&] { ++ran; });
            }
        });
    EXPECT_TRUE(next.Run([&] { return ran == 1000; }));
    producer.join();
    stop = true;
    thread.join();
}

// A context needs one for itself when it first watches something, later only for the channel.
TEST_F(AsioTest, RegistersNothingWithoutADescriptor)
{
    if (test::addressSanitizer)
    {
        GTEST_SKIP() << "UndefinedBehaviorSanitizer looks at objects through pipes of its own";
    }
    AsioLoop loop;
    for (int round = 0; round < 2; ++round)
    {
        {
            const test::NoDescriptors exhausted;
            EXPECT_THROW(loop.Register(nullptr), boost::system::system_error);
        }
        EXPECT_TRUE(Blocks());
        EXPECT_EQ(test::Post([] {}), 3);
        test::ClearLog();
        EXPECT_EQ(loop.Register(nullptr), 0);
        test::Post([] {});
        OneWayChannel_Unregister();
        loop.io.restart();
        EXPECT_EQ(loop.io.poll(), 1U); // or the next registration would need none
    }
}

// Not even the wait that goes on, which serves the next registration with the same context.
TEST_F(AsioTest, ManyRegistrationsWithoutAPostLeaveNoDescriptors)
{
    AsioLoop loop;
    AsioLoop other;
    ASSERT_EQ(loop.Register(nullptr), 0);
    OneWayChannel_Unregister();
    ASSERT_EQ(other.Register(nullptr), 0);
    OneWayChannel_Unregister();
    const long before = OpenDescriptors();
    for (int round = 0; round < 20; ++round)
    {
        AsioLoop& next = round % 3 == 0 ? other : loop;
        ASSERT_EQ(next.Register(nullptr), 0);
        next.io.restart();
        EXPECT_EQ(next.io.poll(), 0U);
        OneWayChannel_Unregister();
    }
    EXPECT_EQ(OpenDescriptors(), before);
    // What its wait was told may have been read by another loop since.
    ASSERT_EQ(loop.Register(nullptr), 0);
    test::Post([] {});
    OneWayChannel_Unregister();
    boost::asio::post(loop.io,
                      [&]
                      {
                          test::Drain();
                          ASSERT_EQ(loop.Register(nullptr), 0);
                      });
    loop.io.restart();
    loop.io.poll();
    int ran = 0;
    test::Post([&] { ++ran; });
    EXPECT_TRUE(loop.Run([&] { return ran == 1; }));
}

TEST_F(AsioTest, EndsTheWatchAfterAnError)
{
    AsioLoop loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    Channel().streamDescriptor->cancel();
    loop.io.poll();
    EXPECT_EQ(test::CountLog(4, 300, "_PipeIOContexHandler", "Error in IOContext Read: 125"), 1U);
    EXPECT_TRUE(loop.io.stopped());
    test::Post([] {});
    loop.io.restart();
    EXPECT_EQ(loop.io.poll(), 0U);
    test::ClearLog();
}

} // namespace
