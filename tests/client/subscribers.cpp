// What is particular to the subscribers; see callbacks.cpp and registry.cpp for the rest.

#include "fixture.hpp"
#include "no_bus.hpp"

#include <com/tamm/bmc/cpumetrics/CpuTelemetryPkg/client_cache.hpp>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class Subscribers : public ClientTest
{
  protected:
    void Emit(const std::vector<Value>& arguments, const std::string& interface = fanInterface)
    {
        ClientTest::Emit(interface, "notifyFanReportingData", arguments);
    }
};

TEST_F(Subscribers, ClearWhatASignalDoesNotBring)
{
    size_t calls = 0;
    FanSignal signal(fanPath, Count, &calls);
    const std::string map = "sd_bus_message_enter_container emplace_container: ";
    const std::string number = "sd_bus_message_read_basic fundamental: ";
    const auto refused =
        [&](const std::vector<Value>& arguments, uint8_t count, const std::string& what)
    {
        const bool ready = signal.Ready();
        const size_t before = calls;
        test::ClearLog();
        Emit(arguments);
        EXPECT_THAT(Logged(), ElementsAre(Trace("ObjectCallback", "enter notifyFanReportingData"),
                                          testing::StartsWith(Exception("ObjectCallback", what))));
        EXPECT_EQ(signal.Get_fanCount(), count);
        EXPECT_EQ(signal.Get_fanPWMData(), FanMap());
        EXPECT_EQ(signal.SignalCount(), before);
        EXPECT_EQ(calls, before);
        bool is_set = !ready;
        FanMap value;
        signal.Get_fanPWMData(is_set, value);
        EXPECT_EQ(is_set, ready);
        EXPECT_EQ(signal.Ready(), ready);
    };
    refused({uint8_t{4}, "no map"}, 4, map);
    Emit({uint8_t{3}, twoFans});
    refused({}, 0, number);
    refused({uint16_t{4}, twoFans}, 0, number);
    refused({uint8_t{5}}, 5, map);
    refused({uint8_t{6}, std::map<std::string, uint8_t>{{"fan1", 1}}}, 6, map);
    Emit({uint8_t{7}, twoFans});
    EXPECT_EQ(signal.Get_fanPWMData(), twoFans);
    EXPECT_EQ(signal.SignalCount(), 2U);
}

TEST_F(Subscribers, HearTheirSignalOnly)
{
    FanSignal* const first = FanSignal::Create(fanPath);
    FanSignal* const second = FanSignal::Create(fanPath);
    Emit({uint8_t{3}, twoFans}, "com.example.Other");
    fans.EmitRaw("/elsewhere", fanInterface, "notifyFanReportingData", {uint8_t{3}, twoFans});
    ClientTest::Emit(fanInterface, "other", {uint8_t{3}, twoFans});
    EXPECT_EQ(first->SignalCount(), 0U);
    // Whoever sends it, every subscriber gets it.
    kit::FakeService stranger;
    stranger.EmitRaw(fanPath, fanInterface, "notifyFanReportingData", {uint8_t{3}, twoFans});
    Deliver();
    EXPECT_EQ(first->SignalCount(), 1U);
    EXPECT_EQ(second->SignalCount(), 1U);
    EXPECT_EQ(FanSignal::Lookup(fanPath), first);
}

TEST_F(Subscribers, OfOneInterfaceAreToldApart)
{
    namespace Pkg = ClientCache::CpuTelemetryPkg;
    Pkg::SecondSignal second(fanPath);
    Pkg::CpuTelemetryPkg1Change change(fanPath);
    ClientTest::Emit(fanInterface, "SecondSignal", {uint32_t{1}});
    EXPECT_EQ(second.SignalCount(), 0U);
    test::ClearLog();
    fans.EmitRaw(fanPath, "com.tamm.bmc.cpumetrics.CpuTelemetryPkg", "SecondSignal", {"?"});
    Deliver();
    ASSERT_FALSE(test::Log().empty());
    EXPECT_EQ(test::Log()[0].text, "enter SecondSignal");
    EXPECT_EQ(test::CountLog(9, 127, "ObjectCallback", "enter CpuTelemetryPkg1Change"), 0U);
}

TEST_F(Subscribers, ConstructorsAndFactories)
{
    static size_t nulls;
    nulls = 0;
    const FanSignal::Callback countNulls = [](FanSignal*, void* user_data)
    { nulls += user_data == nullptr ? 1 : 0; };
    size_t calls = 0;
    FanSignal plain(fanPath);
    FanSignal alone(fanPath, countNulls);
    FanSignal both(fanPath, Count, &calls);
    FanSignal none(fanPath, nullptr, &calls);
    FanSignal::Create(fanPath, Count, &calls)->AddCallback(countNulls);
    Emit({uint8_t{3}, twoFans});
    EXPECT_EQ(nulls, 2U);
    EXPECT_EQ(calls, 2U);
    EXPECT_EQ(plain.SignalCount() + none.SignalCount(), 2U);
}

TEST(SubscribersWithoutABus, SayNothingAndThrow)
{
    const test::NoBus noBus;
    test::ClearLog();
    EXPECT_THROW(FanSignal("/a"), bmcbus::Error);
    EXPECT_THROW(FanSignal::Create("/a"), bmcbus::Error);
    EXPECT_EQ(FanSignal::Lookup("/a"), nullptr);
    EXPECT_THAT(test::Log(), IsEmpty());
}

} // namespace
