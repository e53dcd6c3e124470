// Sends over the channel, with each kind of loop.

#include "bounded.hpp"
#include "faults.h"
#include "log_recorder.hpp"
#include "loops.hpp"
#include "sleeps.hpp"

#include <oneway_channel.hpp>
#include <poll.h>
#include <pthread.h>
#include <threadfunnel_over_owc.hpp>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

namespace
{

using test::CountLog;
using test::FunnelRuns;
using test::LoopThread;
using test::Make;
using test::MakeLoop;
using test::Runs;
using test::Send;

constexpr unsigned int source = 300;
const std::string entry = "TFoOWC_init_and_send_work";

class FunnelOverChannel : public test::Bounded, public testing::WithParamInterface<MakeLoop>
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
        owc_tid_valid = false;
        Bounded::TearDown();
    }
};

TEST_P(FunnelOverChannel, ItemsRunOneByOneOnTheLoopsThread)
{
    constexpr int each = 200;
    int ran = 0; // plain on purpose
    const LoopThread loop(GetParam());
    const auto send = [&]
    {
        bool mine = false;
        Send(
            [&]
            {
                mine = loop.IsCurrent();
                ++ran;
            });
        return mine && FunnelRuns();
    };
    EXPECT_EQ(test::SendFromMany(each, send), 0);
    EXPECT_EQ(ran, 4 * each);
    EXPECT_TRUE(owc_tid_valid);
    EXPECT_TRUE(test::Log(5).empty()) << test::Describe(test::Log(5));
}

TEST_P(FunnelOverChannel, OnTheLoopsThread)
{
    const LoopThread loop(GetParam());
    Send(
        [&]
        {
            EXPECT_TRUE(Runs());
            EXPECT_FALSE(FunnelRuns());
            Send(nullptr);
            EXPECT_THROW(Send([] { throw 7; }), int);
        });
    EXPECT_EQ(
        CountLog(5, source, entry, "running direct because current thread is the OWC thread\n"),
        3U);
    EXPECT_EQ(CountLog(2, source, entry,
                       std::string("EXCEPTION ") + std::bad_function_call().what() + "\n"),
              1U);
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock D detected\n"), 1U);
    EXPECT_EQ(CountLog(1, source, "TF_init_and_send_work", "deadlock detected\n"), 1U);
    EXPECT_EQ(test::Log(5).size(), 6U);
}

TEST_P(FunnelOverChannel, ExceptionsStayOnTheLoopsThread)
{
    const LoopThread loop(GetParam());
    TF_set_alternate_log_source(301);
    Send([] { throw std::runtime_error("of the item"); });
    Send([] { throw 7; });
    Send(nullptr);
    EXPECT_TRUE(Runs());
    EXPECT_TRUE(FunnelRuns());
    for (const unsigned int id : {source, 301U})
    {
        const std::string name = "TFoOWC_callback";
        EXPECT_EQ(CountLog(2, id, name, "EXCEPTION of the item\n"), 1U);
        EXPECT_EQ(CountLog(2, id, name, "EXCEPTION not a std::exception\n"), 1U);
        EXPECT_EQ(CountLog(2, id, name,
                           std::string("EXCEPTION ") + std::bad_function_call().what() + "\n"),
                  1U);
    }
    for (const test::LogLine& line : test::Log(5))
    {
        EXPECT_EQ(line.file, "threadfunnel_over_owc.cpp");
    }
}

TEST_P(FunnelOverChannel, RefusedAfterTheLoopIsGone)
{
    auto loop = std::make_unique<LoopThread>(GetParam());
    TF_lock();
    std::thread sender([] { EXPECT_FALSE(Runs()); });
    EXPECT_TRUE(test::Eventually(
        []
        {
            return std::atomic_ref(owc_tid_valid).load(); // the sender is past its own checks
        }));
    loop.reset();
    TF_unlock();
    sender.join();
    EXPECT_EQ(
        CountLog(1, source, "TFoOWC_send_work", "OneWayChannel_Execute returned an error, irv=3"),
        1U);
    EXPECT_FALSE(TF_check_for_deadlock_in_callback());
    EXPECT_FALSE(Runs());
    EXPECT_EQ(CountLog(1, source, entry, "OWC is not registered\n"), 1U);
    EXPECT_TRUE(FunnelRuns());
}

// The message stays queued and refers to the sender's frame.
TEST_P(FunnelOverChannel, FailedTriggerLetsTheSenderWait)
{
    const LoopThread loop(GetParam());
    std::atomic<bool> ran{false};
    FailCalls(&writing, 0, 1, EIO);
    std::thread sender([&] { ran = Runs(); });
    EXPECT_TRUE(test::Eventually(
        [] { return CountLog(1, source, "TriggerReadPipeNoLock", "Write failed : -1") == 1U; }));
    EXPECT_FALSE(ran);
    EXPECT_EQ(OneWayChannel_Execute([](void*, void*, unsigned long) { return 0; }, nullptr, 0, 0),
              0);
    sender.join();
    EXPECT_TRUE(ran);
}

TEST_P(FunnelOverChannel, ExceptionOfTheChannelReleasesTheFunnel)
{
    const LoopThread loop(GetParam());
    brokenMutex = infrautils::oneWayChannelOperationMutex.native_handle();
    EXPECT_THROW(Runs(), std::system_error);
    brokenMutex = nullptr;
    EXPECT_FALSE(TF_check_for_deadlock());
    EXPECT_TRUE(FunnelRuns());
    EXPECT_TRUE(Runs());
}

// The loop's thread stands in the line before the first send over the channel has named it; that
// send would wait for it for ever.
TEST_P(FunnelOverChannel, SendOfTheLoopInTheLineIsRefused)
{
    const LoopThread loop(GetParam());
    test::BusyFunnel busy;
    bool ran = false;
    std::thread first([&] { ran = Runs(); });
    EXPECT_TRUE(test::Eventually([] { return std::atomic_ref(owc_tid_valid).load(); }));
    std::atomic_ref(owc_tid_valid).store(false); // as if the loop had looked just before
    struct Sender
    {
        std::atomic<pid_t> thread{0};
        std::atomic<int> ran{-1};
    } sender;
    OneWayChannel_Execute(
        [](void*, void* data, unsigned long)
        {
            auto& self = *static_cast<Sender*>(data);
            self.thread = gettid();
            self.ran = FunnelRuns() ? 1 : 0;
            return 0;
        },
        &sender, 0, 0);
    EXPECT_TRUE(
        test::Eventually([&] { return sender.thread != 0 && test::Sleeps(sender.thread); }));
    busy.LetGo();
    first.join();
    EXPECT_TRUE(ran);
    EXPECT_EQ(sender.ran, 0);
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock D detected\n"), 1U);
    EXPECT_EQ(CountLog(1, source, "TF_init_and_send_work", "deadlock detected\n"), 1U);
}

// A later thread may get the same id, and its sends are none of the loop's.
TEST_P(FunnelOverChannel, EndedLoopThreadIsNoLongerNamed)
{
    {
        const LoopThread loop(GetParam());
        EXPECT_TRUE(Runs());
        EXPECT_TRUE(owc_tid_valid);
    }
    EXPECT_FALSE(owc_tid_valid);
}

// Once it is queued nothing may throw: it will run, in a frame that must still be there.
TEST_P(FunnelOverChannel, FailedLockAfterQueueingDoesNotThrow)
{
    const LoopThread loop(GetParam());
    std::latch go(1);
    struct
    {
        std::latch& go;
        std::atomic<int> ran{0};
    } shared{.go = go};
    OneWayChannel_Execute(
        [](void*, void* data, unsigned long)
        {
            static_cast<decltype(shared)*>(data)->go.wait();
            return 0;
        },
        &shared, 0, 0);
    const auto post = [&]
    {
        return OneWayChannel_Execute(
            [](void*, void* data, unsigned long)
            {
                ++static_cast<decltype(shared)*>(data)->ran;
                return 0;
            },
            &shared, 0, 0);
    };
    int posted = 0;
    const auto writable = []
    {
        pollfd end{.fd = infrautils::OneWayChannel::GetInstance()->pipeFds[1],
                   .events = POLLOUT,
                   .revents = 0};
        return poll(&end, 1, 0) == 1;
    };
    for (; writable(); ++posted)
    {
        ASSERT_EQ(post(), 0);
    }
    for (int room = 0; room < 2048; ++room) // what is left of the last page
    {
        goodLocks = 1;
        nextLockFails = EINVAL;
        EXPECT_EQ(post(), 0);
        goodLocks = nextLockFails = 0;
        ++posted;
    }
    go.count_down();
    EXPECT_TRUE(Runs());
    EXPECT_EQ(shared.ran, posted);
}

INSTANTIATE_TEST_SUITE_P(Loops, FunnelOverChannel, test::everyLoop, test::KindName);

using FunnelWithoutLoop = test::Bounded;

TEST_F(FunnelWithoutLoop, IsRefused)
{
    test::ClearLog();
    TF_set_alternate_log_source(301);
    EXPECT_FALSE(Runs());
    int fd = -1;
    OneWayChannel_GetChannelFDAndSelfRegister(&fd, nullptr);
    EXPECT_FALSE(Runs());
    OneWayChannel_Unregister();
    TF_set_alternate_log_source(0);
    for (const unsigned int id : {source, 301U})
    {
        EXPECT_EQ(CountLog(1, id, entry, "OWC is not registered\n"), 1U);
        EXPECT_EQ(CountLog(1, id, entry, "TID is not set\n"), 1U);
    }
    EXPECT_EQ(test::Log(5).size(), 4U);
    EXPECT_FALSE(owc_tid_valid);
}

TEST_F(FunnelWithoutLoop, RefusesWhoCannotWait)
{
    const LoopThread loop(Make<test::ZLoop>);
    test::ClearLog();
    test::FunnelSend([] { EXPECT_FALSE(Runs()); }); // on the funnel thread
    TF_start_deadlock_protection();
    EXPECT_FALSE(Runs());
    TF_end_deadlock_protection();
    EXPECT_TRUE(Runs());
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock A detected\n"), 1U);
    EXPECT_EQ(CountLog(1, source, "TF_check_for_deadlock", "deadlock B detected\n"), 1U);
    EXPECT_EQ(CountLog(1, source, entry, "deadlock detected\n"), 2U);
}

TEST_F(FunnelWithoutLoop, SetUpFailures)
{
    IN_FRESH_PROCESS({
        FailCalls(&pipeCreation, 0, 1, EMFILE);
        EXPECT_THROW(Runs(), std::runtime_error);
        EXPECT_FALSE(Runs());
        EXPECT_EQ(CountLog(1, source, entry, "OWC is not registered\n"), 1U);
    });
    IN_FRESH_PROCESS({
        FailCalls(&keyCreation, 0, 10, EAGAIN);
        EXPECT_FALSE(Runs());
        EXPECT_EQ(CountLog(1, source, "TF_setup_key_and_atfork", "key is not valid"), 1U);
        EXPECT_EQ(CountLog(1, source, entry, "unable to setup key and atfork\n"), 1U);
        EXPECT_EQ(test::Log(2).size(), 3U);
    });
}

} // namespace
