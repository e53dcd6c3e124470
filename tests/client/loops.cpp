// Cached proxies and subscribers in each kind of loop: what arrives during a blocking call, and
// what goes away and comes back.

#include "bus_loops.hpp"
#include "fixture.hpp"

#include <memory>
#include <thread>

namespace
{

template <class Loop>
class Loops : public ClientTest
{
  protected:
    bool Run(const test::Condition& done) { return loop.Run(done); }

    // Sends a signal for `fan` while a call of `member` waits for its answer.
    std::thread SignalDuring(const std::string& member)
    {
        fans.On(member).Once().Hold();
        return std::thread(
            [this]
            {
                EXPECT_TRUE(fans.WaitForHeld());
                fans->EmitPropertiesChanged(fanInterface, {{"fanCount", uint8_t{9}}});
                fans.Release();
            });
    }

    void ExpectTheSignal()
    {
        EXPECT_EQ(fan.SignalCount(), 0U) << "handled by the loop, not by the call";
        EXPECT_TRUE(Run([&] { return fan.SignalCount() > 0; }));
        EXPECT_EQ(fan.Get_fanCount(), 9);
        EXPECT_EQ(fan.SignalCount(), 1U);
    }

    Fan fan{fanPath, fanService};
    // Everything that came with the proxy is handled before.
    Loop loop{connection};
};

TYPED_TEST_SUITE(Loops, test::AttachedLoops);

TYPED_TEST(Loops, SignalsThatArriveDuringACreate)
{
    std::thread sender = this->SignalDuring("GetAll");
    Fan* const second = Fan::Create(fanPath, fanService);
    sender.join();
    this->ExpectTheSignal();
    EXPECT_EQ(second->SignalCount(), 1U);
}

TYPED_TEST(Loops, SignalsThatArriveDuringAGet)
{
    FanEdge edge(fanService, fanPath);
    std::thread sender = this->SignalDuring("Get");
    EXPECT_EQ(edge.Get_fanCount(), 2);
    sender.join();
    this->ExpectTheSignal();
}

TYPED_TEST(Loops, TheServiceGoesAndComesBack)
{
    Fan* const waiting = Fan::Create(fanPath, true);
    FanSignal* const signal = FanSignal::Create(fanPath);
    EXPECT_TRUE(this->Run([&] { return waiting->Ready(); }));
    this->fans.EmitRaw(fanPath, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                       {kit::Path{fanPath}, std::vector{fanInterface}});
    EXPECT_TRUE(this->Run([&] { return !waiting->Ready() && !this->fan.Ready(); }));
    this->fans.Crash();
    EXPECT_EQ(this->fan.Get_fanCount(), 2) << "the last values remain";

    this->fans->SetQuietly({{"fanCount", 12}});
    this->fans.Start();
    waiting->InitialGetAll();
    EXPECT_TRUE(this->Run([&] { return waiting->Ready(); }));
    EXPECT_EQ(waiting->Get_fanCount(), 12);
    // The subscriptions go by the object, not by who has it.
    this->fans->Set("fanCount", 13);
    this->fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    EXPECT_TRUE(this->Run(
        [&] { return this->fan.Ready() && waiting->Get_fanCount() == 13 && signal->Ready(); }));
    EXPECT_EQ(this->fan.Get_fanCount(), 13);
}

TYPED_TEST(Loops, TheConnectionEndsWithRequestsPending)
{
    this->mapper.On("GetObject").NoReply();
    this->fans.On("GetAll").NoReply();
    Fan* const looking = Fan::Create(fanPath, true);
    Fan* const reading = Fan::Create(fanPath, fanService, true);
    ASSERT_TRUE(this->mapper.WaitForCalls("GetObject") && this->fans.WaitForCalls("GetAll", 2));
    this->bus.Kill();
    EXPECT_TRUE(this->Run(
        []
        {
            return test::CountLog(9, 127, "GetServiceAsyncCallback", "success=0") == 1 &&
                   test::CountLog(9, 127, "GetPropertiesAsyncCallback", "success=0") == 1;
        }));
    for (Fan* each : {looking, reading})
    {
        EXPECT_FALSE(each->Ready());
        each->Set_fanCount(4);
        EXPECT_EQ(each->Get_fanCount(), 4);
        each->InitialGetAll();
        EXPECT_FALSE(each->Ready());
    }
    EXPECT_TRUE(this->fan.Ready());
}

} // namespace
