// What the channel does in order, and what it refuses.

#include "channel_loops.hpp"
#include "faults.h"
#include "log_recorder.hpp"
#include "sleeps.hpp"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using test::Channel;
using test::CountLog;

class ChannelTest : public testing::Test
{
  protected:
    ChannelTest()
    {
        Channel(); // its descriptors are not this test's
        test::ClearLog();
    }
    ~ChannelTest() override
    {
        for (Fault* fault : {&writing, &reading, &zloopPoller})
        {
            FailCalls(fault, 0, 0, 0);
        }
        test::Drain();
    }
};

template <class Loop>
class EveryLoop : public ChannelTest
{
};

TYPED_TEST_SUITE(EveryLoop, test::AllLoops);

struct Seen
{
    std::vector<unsigned long> sizes;
    void* context = nullptr;
    pthread_t thread{};

    auto Reaches(size_t count) const
    {
        return [this, count] { return sizes.size() >= count; };
    }
};

int Note(void* context, void* data, unsigned long size)
{
    auto* seen = static_cast<Seen*>(data);
    seen->sizes.push_back(size);
    seen->context = context;
    seen->thread = pthread_self();
    return -1; // means something to a zloop's handler, but not here
}

std::string FileOf(const std::string& function)
{
    for (const char* const inlined :
         {"OneWayChannel", "~OneWayChannel", "Unregister", "TriggerReadPipeNoLock"})
    {
        if (function == inlined)
        {
            return "oneway_channel.hpp";
        }
    }
    return function == "OneWayChannel_RegisterSDEvent" ? "oneway_channel_sdevent.cpp"
                                                       : "oneway_channel.cpp";
}

std::vector<std::string> Lines()
{
    std::vector<std::string> lines;
    for (const test::LogLine& line : test::Log())
    {
        EXPECT_EQ(line.source, 300U);
        EXPECT_EQ(line.file, FileOf(line.function));
        lines.push_back(std::to_string(line.level) + " " + line.function + ": " + line.text);
    }
    return lines;
}

TYPED_TEST(EveryLoop, RunsMessagesInOrderOnTheLoopsThread)
{
    TypeParam loop;
    int context = 0;
    ASSERT_EQ(loop.Register(&context), 0);
    Seen seen;
    std::thread producer(
        [&]
        {
            for (unsigned long i = 0; i < 1000; ++i)
            {
                EXPECT_EQ(OneWayChannel_Execute(Note, &seen, i, 0), 0);
            }
        });
    EXPECT_TRUE(loop.Run(seen.Reaches(1000)));
    producer.join();
    EXPECT_TRUE(std::is_sorted(seen.sizes.begin(), seen.sizes.end()));
    EXPECT_EQ(seen.context, &context);
    EXPECT_TRUE(pthread_equal(seen.thread, pthread_self()));
    EXPECT_THAT(Lines(), IsEmpty());
}

TYPED_TEST(EveryLoop, TellsItsRegistrationAndRefusesAnother)
{
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    const auto expected = "2 _ReturnAlreadyRegistered: " + std::string(TypeParam::taken);
    test::SdEventLoop sd;
    test::ZLoop z;
    test::AsioLoop io;
    for (const int result : {sd.Register(nullptr), z.Register(nullptr), io.Register(nullptr)})
    {
        EXPECT_EQ(result, 2);
    }
    EXPECT_EQ(OneWayChannel_RegisterZLoop(z.loop, nullptr), 0);
    EXPECT_THAT(Lines(), ElementsAre(expected, expected, expected, expected));

    bool registered = false;
    bool valid = false;
    pthread_t tid{};
    OneWayChannel_IsRegistered(&registered, &valid, &tid);
    EXPECT_TRUE(registered);
    EXPECT_EQ(valid, TypeParam::type != infrautils::RegistrationType::UserFD);
    EXPECT_TRUE(!valid || pthread_equal(tid, pthread_self()));
    EXPECT_EQ(Channel().registrationType, static_cast<int>(TypeParam::type));
}

TYPED_TEST(EveryLoop, LogsTheEndOfARegistrationAndKeepsTheQueue)
{
    Seen seen;
    {
        TypeParam loop;
        ASSERT_EQ(loop.Register(nullptr), 0);
        ASSERT_EQ(OneWayChannel_Execute(Note, &seen, 1, 0), 0);
        OneWayChannel_Unregister();
        OneWayChannel_Unregister();
        std::vector<std::string> expected{"9 Unregister: enter", "9 Unregister: leave",
                                          "9 Unregister: enter", "9 Unregister: not registered"};
        if (TypeParam::ending != nullptr)
        {
            expected.insert(expected.begin() + 1,
                            std::string("9 Unregister: ") + TypeParam::ending);
        }
        EXPECT_EQ(Lines(), expected);
        EXPECT_EQ(OneWayChannel_Execute(Note, &seen, 2, 0), 3);
        EXPECT_EQ(Channel().mbQueue.size(), 1U);
    }
    TypeParam loop;
    ASSERT_EQ(loop.Register(&seen), 0);
    ASSERT_EQ(OneWayChannel_Execute(Note, &seen, 3, 0), 0);
    EXPECT_TRUE(loop.Run(seen.Reaches(2)));
    EXPECT_THAT(seen.sizes, ElementsAre(1, 3));
    EXPECT_EQ(seen.context, &seen);
}

TYPED_TEST(EveryLoop, ChangesItsLoopInsideAMessage)
{
    TypeParam loop;
    TypeParam next;
    ASSERT_EQ(loop.Register(nullptr), 0);
    bool ran = false;
    test::Post(
        [&]
        {
            OneWayChannel_Unregister();
            EXPECT_EQ(next.Register(nullptr), 0);
            ran = true;
        });
    EXPECT_TRUE(loop.Run([&] { return ran; }));
    Seen seen;
    ASSERT_EQ(OneWayChannel_Execute(Note, &seen, 5, 0), 0);
    EXPECT_TRUE(next.Run(seen.Reaches(1)));
}

// Released data is checked by the sanitizers.
TYPED_TEST(EveryLoop, LogsExceptionsAndReleasesTheirData)
{
    TypeParam loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    Channel().Execute([](void*, void*, unsigned long) -> int { throw std::runtime_error("no"); },
                      std::malloc(16), 16, true);
    ASSERT_EQ(OneWayChannel_Execute(nullptr, std::malloc(16), 16, 1), 0);
    Seen seen;
    OneWayChannel_Execute(Note, &seen, 1, 0);
    EXPECT_TRUE(loop.Run(seen.Reaches(1)));
    EXPECT_THAT(Lines(), ElementsAre("1 ProcessMBQueue: Error in ProcessMBQueue : no",
                                     std::string("1 ProcessMBQueue: Error in ProcessMBQueue : ") +
                                         std::bad_function_call().what()));
}

// A reactor in C is left out: what passes through it is not promised to arrive.
TEST_F(ChannelTest, LetsForeignExceptionsPassAndGoesOn)
{
    Seen seen;
    const auto post = [&](unsigned long size)
    {
        Channel().Execute([](void*, void*, unsigned long) -> int { throw 5; }, std::malloc(16), 16,
                          true);
        OneWayChannel_Execute(Note, &seen, size, 0);
    };
    {
        test::PollLoop loop;
        loop.Register(nullptr);
        post(1);
        EXPECT_THROW(OneWayChannel_Process(loop.fd), int);
        EXPECT_TRUE(loop.Run(seen.Reaches(1)));
    }
    {
        test::AsioLoop loop;
        loop.Register(nullptr);
        post(2);
        EXPECT_THROW(loop.Run([] { return false; }), int);
        EXPECT_TRUE(loop.Run(seen.Reaches(2)));
    }
    test::SdEventLoop loop;
    loop.Register(nullptr);
    post(3);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(loop.Run(seen.Reaches(3)));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("Unknown error"));
    EXPECT_THAT(seen.sizes, ElementsAre(1, 2, 3));
}

TEST_F(ChannelTest, RefusesWhatTheStateForbids)
{
    EXPECT_EQ(OneWayChannel_Execute(Note, nullptr, 0, 0), 3);
    EXPECT_EQ(OneWayChannel_ExecuteDefault(nullptr, 0, 0), 3);
    test::ZLoop loop;
    ASSERT_EQ(loop.Register(nullptr), 0);
    EXPECT_EQ(OneWayChannel_ExecuteDefault(nullptr, 0, 0), 3);
    EXPECT_EQ(OneWayChannel_Process(Channel().pipeFds[0]), 3);
    OneWayChannel_Unregister();
    test::ClearLog();
    FailCalls(&zloopPoller, 0, 2, EINVAL);
    EXPECT_EQ(loop.Register(nullptr), 4);
    EXPECT_EQ(OneWayChannel_RegisterZLoopWithDefaultFunction(loop.loop, nullptr, Note), 0);
    EXPECT_THAT(Lines(), ElementsAre("2 RegisterZLoop: Registering pipe to poller failed : -1",
                                     "2 RegisterZLoop: Registering pipe to poller failed : -1"));
    test::ClearLog();
    EXPECT_EQ(OneWayChannel_Execute(Note, nullptr, 0, 0), 3);
    EXPECT_EQ(OneWayChannel_ExecuteDefault(nullptr, 0, 0), 3);
    EXPECT_THAT(Lines(),
                ElementsAre("4 Execute: the receive fd is not registered, please call Register",
                            "4 Execute: Default function handler not registered"));
    Channel().registrationType = 9;
    EXPECT_EQ(Channel()._ReturnAlreadyRegistered(), 2);
    Channel().registrationType = 0;
    EXPECT_EQ(CountLog(2, 300, "_ReturnAlreadyRegistered", "Already registered 9"), 1U);
}

TEST_F(ChannelTest, RunsTheDefaultFunction)
{
    Seen seen;
    {
        test::PollLoop loop;
        ASSERT_EQ(loop.Register(nullptr, Note), 0);
        EXPECT_EQ(OneWayChannel_ExecuteDefault(&seen, 42, 0), 0);
        EXPECT_TRUE(loop.Run(seen.Reaches(1)));
    }
    test::ZLoop loop;
    ASSERT_EQ(OneWayChannel_RegisterZLoopWithDefaultFunction(loop.loop, &seen, Note), 0);
    EXPECT_EQ(OneWayChannel_ExecuteDefault(&seen, 43, 0), 0);
    EXPECT_TRUE(loop.Run(seen.Reaches(2)));
    EXPECT_THAT(seen.sizes, ElementsAre(42, 43));
    EXPECT_EQ(seen.context, &seen);
}

TEST_F(ChannelTest, KeepsAMessageWhoseTriggerFailed)
{
    Seen seen;
    test::PollLoop loop;
    loop.Register(nullptr);
    for (const int error : {EIO, EAGAIN})
    {
        FailCalls(&writing, 0, 1, error);
        EXPECT_EQ(OneWayChannel_Execute(Note, &seen, 1, 0), 6);
    }
    EXPECT_EQ(CountLog(1, 300, "TriggerReadPipeNoLock", "Write failed : -1"), 2U);
    EXPECT_EQ(OneWayChannel_Execute(Note, &seen, 2, 0), 0);
    EXPECT_TRUE(loop.Run(seen.Reaches(3)));
    EXPECT_THAT(seen.sizes, ElementsAre(1, 1, 2));
}

TEST_F(ChannelTest, CancelledPosterPostsMessageAndTrigger)
{
    test::PollLoop loop;
    loop.Register(nullptr);
    bool ran = false;
    bool cancelled = true;
    std::thread poster(
        [&]
        {
            pthread_cancel(pthread_self());
            test::Post([&] { ran = true; });
            cancelled = false;
            pthread_testcancel();
            ADD_FAILURE() << "not cancelled";
        });
    poster.join();
    EXPECT_FALSE(cancelled);
    EXPECT_EQ(test::TriggerBytes(), 2);
    EXPECT_TRUE(loop.Run([&] { return ran; }));
}

// Else a send over the channel would wait for a message that nobody runs.
TEST_F(ChannelTest, NothingIsQueuedOnceTheRegistrationHasEnded)
{
    test::PollLoop loop;
    loop.Register(nullptr);
    std::atomic<pid_t> poster{0};
    std::unique_lock lock(infrautils::oneWayChannelOperationMutex);
    std::thread thread(
        [&]
        {
            poster = gettid();
            EXPECT_EQ(test::Post([] {}), 3);
        });
    EXPECT_TRUE(bmcbus::testing::Until([&] { return poster != 0 && test::Sleeps(poster); }));
    std::atomic_ref(Channel().registrationType).store(0); // as Unregister() does with the lock
    lock.unlock();
    thread.join();
    EXPECT_TRUE(Channel().mbQueue.empty());
    EXPECT_EQ(CountLog(4, 300, "Execute", "the receive fd is not registered, please call Register"),
              1U);
}

// It would be told of each trigger twice, and wait for the second.
TEST_F(ChannelTest, ZLoopWorksAgainAfterAnotherLoopTookItsPlace)
{
    for (const bool sameThread : {true, false})
    {
        test::ZLoop z;
        ASSERT_EQ(z.Register(nullptr), 0);
        const auto takeOver = []
        {
            test::PollLoop own;
            own.Register(nullptr);
            OneWayChannel_Unregister();
        };
        sameThread ? takeOver() : std::thread(takeOver).join();
        ASSERT_EQ(z.Register(nullptr), 0);
        int ran = 0;
        test::Post([&] { ++ran; });
        EXPECT_TRUE(z.Run([&] { return ran == 1; }));
        test::Post([&] { ++ran; });
        EXPECT_TRUE(z.Run([&] { return ran == 2; }));
    }
}

TEST_F(ChannelTest, EndedThreadIsNoLongerTheLoops)
{
    test::AsioLoop loop;
    std::thread([&] { EXPECT_EQ(loop.Register(nullptr), 0); }).join();
    bool registered = false;
    bool valid = true;
    pthread_t tid{};
    OneWayChannel_IsRegistered(&registered, &valid, &tid);
    EXPECT_TRUE(registered);
    EXPECT_FALSE(valid);
}

TEST_F(ChannelTest, SkipsAWakeUpThatCannotRead)
{
    Seen seen;
    {
        test::PollLoop loop;
        loop.Register(nullptr);
        OneWayChannel_Execute(Note, &seen, 1, 0);
        FailCalls(&reading, 0, INT_MAX, EIO);
        EXPECT_EQ(OneWayChannel_Process(loop.fd), 7);
    }
    test::SdEventLoop loop;
    loop.Register(nullptr);
    const auto told = [] { return CountLog(4, 300, "_PipeIOEventReceive", "Error in read : -1"); };
    EXPECT_TRUE(loop.Run([&] { return told() > 0; }));
    EXPECT_EQ(CountLog(4, 300, "_ReadFromPipe", "Error in zloop pipe read : -1"), 1U);
    EXPECT_THAT(seen.sizes, IsEmpty());
    FailCalls(&reading, 0, 0, 0);
    EXPECT_TRUE(loop.Run(seen.Reaches(1)));
}

// The wrapper around the loop stays: the second call is refused in silence, also later.
TEST_F(ChannelTest, RegistersAnSdEventOncePerProcess)
{
    const test::SdEventLoop loop;
    EXPECT_EQ(OneWayChannel_RegisterSDEvent(nullptr, nullptr), 5);
    EXPECT_EQ(CountLog(1, 300, "OneWayChannel_RegisterSDEvent",
                       "Error in Register : sd_event_add_io: Invalid argument"),
              1U);
    EXPECT_EQ(OneWayChannel_RegisterSDEvent(loop.raw, nullptr), 0);
    test::ClearLog();
    EXPECT_EQ(OneWayChannel_RegisterSDEvent(loop.raw, nullptr), 2);
    EXPECT_THAT(Lines(), IsEmpty());
    OneWayChannel_Unregister();
    EXPECT_EQ(OneWayChannel_RegisterSDEvent(loop.raw, nullptr), 2);
}

// For the thread sanitizer: who asks or posts while loops come and go reads no half-written state.
TEST_F(ChannelTest, CanBeAskedWhileLoopsComeAndGo)
{
    std::atomic<bool> stop{false};
    std::thread asker(
        [&]
        {
            while (!stop)
            {
                bool registered = false;
                bool valid = false;
                pthread_t tid{};
                OneWayChannel_IsRegistered(&registered, &valid, &tid);
                test::Post([] {});
            }
        });
    for (int round = 0; round < 50; ++round)
    {
        test::ZLoop z;
        z.Register(nullptr);
        OneWayChannel_Unregister();
        test::SdEventLoop sd;
        sd.Register(nullptr);
        OneWayChannel_Unregister();
        test::AsioLoop io;
        io.Register(nullptr);
    }
    stop = true;
    asker.join();
}

} // namespace
