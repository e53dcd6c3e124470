// Live objects in each kind of loop, attached as the documents say.

#include "bus_loops.hpp"
#include "fixture.hpp"

namespace
{

template <class Loop>
class LiveLoops : public LiveTest
{
  protected:
    bool Run(const test::Condition& done) { return loop.Run(done); }

    Loop loop{connection};
};

TYPED_TEST_SUITE(LiveLoops, test::AttachedLoops);

TYPED_TEST(LiveLoops, FollowsRestartsAndHotPlug)
{
    const bmcbus::Live<Fans> live = this->Follow();
    this->StartFans();
    this->fans->Manage("/com/example");
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
    this->fans->Crash();
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Lost; }));
    this->fans->Start();
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
    (*this->fans)->EmitPropertiesChanged(fanInterface, {}, {"fanCount"});
    this->Seen();
    ASSERT_TRUE(this->Run([&] { return !this->seen.empty(); }));
    this->fans->EmitRaw("/com/example", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                        {kit::Path{fanPath}, std::vector{fanInterface}});
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Lost; }));
    (*this->fans)->EmitInterfacesAdded();
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
}

TYPED_TEST(LiveLoops, AHandleMadeAfterABlockingCall)
{
    this->StartFans();
    const Fans blocking(fanPath, fanService);
    const bmcbus::Live<Fans> live = this->Follow();
    EXPECT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
}

// sd-bus itself tells nobody.
TYPED_TEST(LiveLoops, ACallbackClosesTheConnection)
{
    this->StartFans();
    const bmcbus::Live<Fans> live(this->connection, fanPath,
                                  {.service = fanService,
                                   .on_state = [this](Fans&, LiveState state)
                                   {
                                       if (state == LiveState::Live)
                                       {
                                           sd_bus_close(this->connection);
                                       }
                                   }});
    EXPECT_TRUE(this->Run([&] { return live.State() == LiveState::Lost; }));
    EXPECT_EQ(live.Report().error, "org.freedesktop.DBus.Error.Disconnected");
}

// Nothing else happens on the bus then.
TYPED_TEST(LiveLoops, AFailedReadIsRepeated)
{
    this->StartFans();
    this->fans->On("GetAll").Once().ReplyError("com.example.Error.Busy");
    const bmcbus::Live<Fans> live = this->Follow();
    EXPECT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
    EXPECT_EQ(live.Report().reads, 2U);
}

TYPED_TEST(LiveLoops, TheConnectionEnds)
{
    this->StartFans();
    const bmcbus::Live<Fans> live = this->Follow();
    ASSERT_TRUE(this->Run([&] { return live.State() == LiveState::Live; }));
    this->fans.reset();
    this->bus.Kill();
    EXPECT_TRUE(this->Run(
        [&] { return live.Report().error == "org.freedesktop.DBus.Error.Disconnected"; }));
    EXPECT_EQ(live.State(), LiveState::Lost);
}

} // namespace
