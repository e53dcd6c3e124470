// Attachments to loops: when they end, when they are taken off in the middle, and what somebody
// else's blocking call has left in the queue.

#include "bus_loops.hpp"

#include <bmcbus/attach/channel.hpp>
#include <bmcbus/connection.hpp>
#include <bmcbus/request.hpp>
#include <bmcbus/testing.hpp>
#ifdef WITH_GLIB
#include <bmcbus/attach/glib.hpp>
#endif

#include <thread>
#include <vector>

namespace
{

namespace kit = bmcbus::testing;
using test::Condition;

#ifdef WITH_GLIB
class GLibLoop
{
  public:
    explicit GLibLoop(sd_bus* bus, bmcbus::attach::EndHandler onEnd = {})
    {
        attached.emplace(context, bus, std::move(onEnd));
    }
    ~GLibLoop()
    {
        attached.reset();
        g_main_context_unref(context);
    }
    GLibLoop(const GLibLoop&) = delete;
    GLibLoop& operator=(const GLibLoop&) = delete;

    bool Run(const Condition& done)
    {
        return test::RunTurns(done,
                              [this]
                              {
                                  GSource* tick = g_timeout_source_new(10);
                                  g_source_set_callback(
                                      tick, [](gpointer) { return G_SOURCE_REMOVE; }, nullptr,
                                      nullptr);
                                  g_source_attach(tick, context);
                                  g_main_context_iteration(context, TRUE);
                                  g_source_destroy(tick);
                                  g_source_unref(tick);
                                  return true;
                              });
    }
    void Detach() { attached.reset(); }

  private:
    GMainContext* context = g_main_context_new();
    std::optional<bmcbus::attach::GLib> attached;
};
using Loops =
    ::testing::Types<test::SdEventLoop, test::AsioLoop, test::ZLoop, test::PollLoop, GLibLoop>;
#else
using Loops = test::AttachedLoops;
#endif

template <class Loop>
class Attached : public ::testing::Test
{
  protected:
    Attached()
    {
        sd_bus* raw = nullptr;
        EXPECT_GE(sd_bus_open_system(&raw), 0);
        connection.reset(raw);
    }

    bmcbus::Request Ask()
    {
        return {connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "GetId"};
    }

    void Attach(bmcbus::attach::EndHandler onEnd = {})
    {
        loop.emplace(connection.get(), std::move(onEnd));
    }

    kit::PrivateBus bus;
    bmcbus::BusRef connection;
    std::optional<Loop> loop;
};

TYPED_TEST_SUITE(Attached, Loops);

TYPED_TEST(Attached, TellsOfTheEndOnce)
{
    std::vector<int> told;
    this->Attach([&](int error) { told.push_back(error); });
    bool lost = false;
    const bmcbus::Call call =
        this->Ask().template Async<std::string>([&](const auto& id) { lost = !id; });
    this->bus.Kill();
    ASSERT_TRUE(this->loop->Run([&] { return !told.empty() && lost; }));
    bool later = false;
    EXPECT_FALSE(this->Ask().template Try<std::string>());
    for (int turn = 0; turn < 3; ++turn)
    {
        EXPECT_TRUE(this->loop->Run([&] { return std::exchange(later, true); }));
    }
    EXPECT_EQ(told.size(), 1U);
    EXPECT_LT(told.front(), 0);
}

TYPED_TEST(Attached, MayBeTakenOffInsideAHandler)
{
    if constexpr (requires { this->loop->Detach(); })
    {
        this->Attach([&](int) { ADD_FAILURE() << "it was taken off"; });
        int told = 0;
        std::vector<bmcbus::Call> calls;
        for (int i = 0; i < 2; ++i)
        {
            calls.push_back(this->Ask().template Async<std::string>(
                [&](const auto&)
                {
                    ++told;
                    this->loop->Detach();
                }));
        }
        ASSERT_TRUE(this->loop->Run([&] { return told > 0; }));
        this->loop.reset();

        this->Attach([&](int) { this->loop->Detach(); });
        ASSERT_TRUE(this->loop->Run([&] { return told == 2; }));
        this->Attach(
            [&, died = std::make_shared<int>(1)](int)
            {
                this->loop->Detach();
                ++told;
                ++*died;
            });
        this->bus.Kill();
        EXPECT_TRUE(this->loop->Run([&] { return told == 3; }));
    }
}

// An sd-event loop used to know nothing of it, nor to keep its deadline.
TYPED_TEST(Attached, KnowsOfACallMadeBefore)
{
    bool told = false;
    const bmcbus::Call call = this->Ask().template Async<std::string>(
        [&](const bmcbus::Result<std::string>& answer) { told = !answer; });
    this->Attach();
    sd_bus_close(this->connection.get());
    EXPECT_TRUE(this->loop->Run([&] { return told; }));
}

TYPED_TEST(Attached, HearsWhatAForeignBlockingCallHasRead)
{
    this->Attach();
    int heard = 0;
    sd_bus_slot* raw = nullptr;
    ASSERT_GE(sd_bus_match_signal(
                  this->connection.get(), &raw, "org.freedesktop.DBus", nullptr, nullptr,
                  "NameOwnerChanged",
                  [](sd_bus_message*, void* count, sd_bus_error*)
                  { return 0 * ++*static_cast<int*>(count); },
                  &heard),
              0);
    const bmcbus::Slot slot(raw);
    ASSERT_GE(sd_bus_request_name(this->connection.get(), "com.example.Heard", 0), 0);
    // The signal came before the answer.
    if constexpr (std::is_same_v<TypeParam, test::AsioLoop> ||
                  std::is_same_v<TypeParam, test::ZLoop>)
    {
        EXPECT_GT(bmcbus::ProcessQueue(this->connection.get()), 0);
    }
    EXPECT_TRUE(this->loop->Run([&] { return heard > 0; }));
}

// Posts from another thread until the loop has run three of them.
template <class Run>
void Post(const int& sum, Run run)
{
    static int values[] = {1, 2, 3};
    const OneWayChannelFunction add = [](void* context, void* value, unsigned long)
    { return *static_cast<int*>(context) += *static_cast<int*>(value); };
    std::thread producer(
        [&]
        {
            for (int& value : values)
            {
                EXPECT_EQ(OneWayChannel_Execute(add, &value, sizeof value, 0), 0);
            }
        });
    EXPECT_TRUE(run([&] { return sum == 6; }));
    producer.join();
}

class AttachedChannel : public ::testing::Test
{
  protected:
    // Its pipe lives as long as the process.
    static void SetUpTestSuite() { infrautils::OneWayChannel::GetInstance(); }
};

TEST_F(AttachedChannel, RunsInEachLoopAndRefusesASecond)
{
    int sum = 0;
    {
        zloop_t* loop = zloop_new();
        zloop_set_nonstop(loop, true);
        {
            const bmcbus::attach::Channel channel(loop, &sum);
            EXPECT_THROW(bmcbus::attach::Channel(loop, &sum), bmcbus::Error);
        }
        const bmcbus::attach::Channel again(loop, &sum);
        Post(sum, [&](const Condition& done) { return test::RunUntil(loop, done); });
        OneWayChannel_Unregister();
        zloop_destroy(&loop);
    }
    {
        sum = 0;
        boost::asio::io_context io;
        const bmcbus::attach::Channel channel(io, &sum);
        Post(sum, [&](const Condition& done) { return test::RunUntil(io, done); });
    }
    {
        sum = 0;
        sd_event* loop = nullptr;
        ASSERT_GE(sd_event_new(&loop), 0);
        {
            const bmcbus::attach::Channel channel(loop, &sum);
            Post(sum, [&](const Condition& done) { return test::RunUntil(loop, done); });
        }
        sd_event_unref(loop);
    }
    sum = 0;
    bmcbus::attach::PollChannel channel(&sum);
    Post(sum,
         [&](const Condition& done)
         {
             return test::RunTurns(done,
                                   [&]
                                   {
                                       pollfd watched = channel.Prepare();
                                       poll(&watched, 1, 10);
                                       return channel.Dispatch(watched) == 0;
                                   });
         });
}

} // namespace
