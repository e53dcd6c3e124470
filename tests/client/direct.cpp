// What a direct proxy says and does besides carrying values; see every_member.hpp for those.

#include "fixture.hpp"

#include <bmcbus/wire.hpp>

#include <com/tamm/bmc/Thermal/SystemInformation/client_cache.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <latch>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class Direct : public ClientTest
{
};

TEST_F(Direct, KnowsOrFindsItsService)
{
    FanEdge known("com.example.Any", fanPath);
    EXPECT_EQ(known.Service(), "com.example.Any");
    EXPECT_EQ(known.Path(), fanPath);
    EXPECT_THAT(Logged(), ElementsAre(Trace("FanReporting", "enter FanReporting"),
                                      Trace("FanReporting", "leave FanReporting")));
    EXPECT_THAT(mapper.Calls(), IsEmpty());

    test::ClearLog();
    FanEdge found("", fanPath);
    EXPECT_EQ(found.Service(), fanService);
    EXPECT_THAT(Logged(), ElementsAre(Trace("FanReporting", "enter FanReporting"),
                                      Trace("FanReporting", "found service=[%s]",
                                            "found service=[" + fanService + "]"),
                                      Trace("FanReporting", "leave FanReporting")));
    EXPECT_EQ(mapper.Calls().at(0).Arguments(),
              "sas \"" + fanPath + "\" 1 \"" + fanInterface + "\"");

    test::ClearLog();
    FanEdge unowned("", "/unowned");
    EXPECT_EQ(unowned.Service(), "");
    EXPECT_THAT(Logged(), ElementsAre(Trace("FanReporting", "enter FanReporting"),
                                      Trace("FanReporting", "no service found"),
                                      Trace("FanReporting", "leave FanReporting")));
    // The service is not looked for again: there is nobody to call.
    mapper.Add("/unowned", fanService, {fanInterface});
    mapper.ClearCalls();
    test::ClearLog();
    bool ok = true;
    int32_t out = 9;
    unowned.Call_updateFanPWMData(ok, "fan1", uint8_t{40}, out);
    EXPECT_FALSE(ok);
    EXPECT_EQ(unowned.Get_fanCount(), 0);
    EXPECT_THAT(mapper.Calls(), IsEmpty());
    EXPECT_THAT(LoggedErrors(),
                ElementsAre(testing::StartsWith(Exception("Call_updateFanPWMData", "sd_bus_")),
                            testing::StartsWith(Exception("GetLocked_fanCount", "sd_bus_"))));
}

TEST_F(Direct, LinesOfByNameAccess)
{
    FanEdge edge(fanService, fanPath);
    test::ClearLog();
    FanEdge::Variant value = uint8_t{9};
    edge.GetByName("fanCount", value);
    EXPECT_EQ(value, FanEdge::Variant(uint8_t{2}));
    for (const char* name : {"FanCount", "fanCoun", "fanCount ", ""})
    {
        edge.GetByNameLocked(name, value);
        edge.GetByName(name, value);
    }
    EXPECT_EQ(value, FanEdge::Variant(uint8_t{2}));
    EXPECT_EQ(fans.Calls().size(), 1U);
    const Lines lines = Logged();
    ASSERT_EQ(lines.size(), 17U);
    EXPECT_THAT(
        Lines(lines.begin(), lines.begin() + 5),
        ElementsAre(
            Trace("GetByName", "property_name=[%s]", "property_name=[fanCount]"),
            Trace("GetByNameLocked", "property_name=[%s]", "property_name=[FanCount]"),
            Error("GetByNameLocked", "invalid property_name=[%s]",
                  "invalid property_name=[FanCount]"),
            Trace("GetByName", "property_name=[%s]", "property_name=[FanCount]"),
            Error("GetByName", "invalid property_name=[%s]", "invalid property_name=[FanCount]")));
}

TEST_F(Direct, ReadsEvenOddReplies)
{
    FanEdge edge(fanService, fanPath);
    const auto reply = [&](const std::vector<Value>& values)
    {
        test::ClearLog();
        fans.On("Get").Once().Reply(values);
    };
    bool ok = true;
    uint8_t count = 9;
    FanMap map = twoFans;
    // Another alternative of the interface.
    reply({Value::Variant(uint8_t{3})});
    edge.Get_fanPWMData(ok, map);
    EXPECT_FALSE(ok);
    EXPECT_EQ(map, twoFans);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Error("Get_fanPWMData", "invalid type in variant")));
    reply({Value::Variant(uint8_t{3})});
    FanEdge::Variant variant;
    edge.Get_fanPWMData(ok, variant);
    EXPECT_TRUE(ok);
    EXPECT_EQ(variant, FanEdge::Variant(uint8_t{3}));
    // No variant; and nothing at all, which reads as the first alternative.
    reply({uint8_t{3}});
    edge.Get_fanCount(ok, count);
    EXPECT_FALSE(ok);
    EXPECT_EQ(count, 9);
    EXPECT_THAT(LoggedErrors(), ElementsAre(testing::StartsWith(
                                    Exception("GetLocked_fanCount", "sd_bus_message_"))));
    reply({});
    edge.Get_fanCount(ok, count);
    EXPECT_FALSE(ok);
    EXPECT_EQ(count, 9);
    EXPECT_THAT(LoggedErrors(), ElementsAre(Error("Get_fanCount", "invalid type in variant")));
    // More than is read is passed over.
    reply({Value::Variant(uint8_t{3}), "more"});
    EXPECT_EQ(edge.Get_fanCount(), 3);
}

// Senders choose it; sd-bus gives arrays of such messages only number by number.
TEST(Wire, ReadsArraysOfTheOtherByteOrder)
{
    using namespace std::string_literals;
    const std::string sent = "\0AUTH ANONYMOUS 61\r\nBEGIN\r\n"
                             "B\4\0\1\0\0\0\30\0\0\0\1\0\0\0:\1\1o\0\0\0\0\1/\0\0\0\0\0\0\0"
                             "\2\1s\0\0\0\0\3a.b\0\0\0\0\0\3\1s\0\0\0\0\1c\0\0\0\0\0\0\0"
                             "\10\1g\0\4aqad\0\0\0\0\0\0\0"
                             "\0\0\0\4\0\1\1\2\0\0\0\10\0\0\0\0?\370\0\0\0\0\0\0"s;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    ASSERT_EQ(write(pair[1], sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    sd_bus* peer = nullptr;
    ASSERT_GE(sd_bus_new(&peer), 0);
    ASSERT_GE(sd_bus_set_fd(peer, pair[0], pair[0]), 0);
    ASSERT_GE(sd_bus_set_server(peer, 1, {}), 0);
    ASSERT_GE(sd_bus_set_anonymous(peer, 1), 0);
    ASSERT_GE(sd_bus_start(peer), 0);
    sd_bus_message* message = nullptr;
    while (message == nullptr)
    {
        ASSERT_GE(sd_bus_process(peer, &message), 0);
    }
    std::vector<uint16_t> words;
    std::vector<double> doubles;
    bmcbus::client::Read(message, words);
    bmcbus::client::Read(message, doubles);
    EXPECT_THAT(words, ElementsAre(1, 258));
    EXPECT_THAT(doubles, ElementsAre(1.5));
    // Nothing is left, so nothing is replaced.
    std::vector<std::string> texts = {"before"};
    EXPECT_THROW(bmcbus::client::Read(message, texts), bmcbus::Error);
    EXPECT_THAT(texts, ElementsAre("before"));
    sd_bus_message_unref(message);
    sd_bus_close_unref(peer);
    close(pair[1]);
}

TEST_F(Direct, WritesWhatTheVariantHolds)
{
    using System = ClientEdge::com::tamm::bmc::Thermal::SystemInformation;
    const std::string interface = "com.tamm.bmc.Thermal.SystemInformation";
    kit::FakeService service("com.example.System", "/system", {interface});
    System edge("com.example.System", "/system");
    edge.Set_ExhaustTemperature(System::Variant("text"));
    ASSERT_EQ(service.Calls("Set").size(), 1U);
    EXPECT_EQ(service.Calls("Set")[0].Arguments(),
              "ssv \"" + interface + "\" \"ExhaustTemperature\" s \"text\"");
    EXPECT_EQ(test::LogOf("EXCEPTION %s.%d.%s: %s").size(), 1U) << "the service's answer";
    test::ClearLog();
    edge.SetByName("Key", System::Variant("text"));
    EXPECT_EQ(test::CountLog(2, 127, "SetByName", "invalid property_name=[Key]"), 1U);
    EXPECT_EQ(service.Calls("Set").size(), 1U);
}

// The plain forms run one at a time; the others and the methods do not wait for them.
TEST_F(Direct, OnlyThePlainFormsWaitForEachOther)
{
    FanEdge edge(fanService, fanPath);
    fans.On("Get", "fanCount").Once().Hold();
    uint8_t first = 0;
    uint8_t second = 0;
    std::thread holding([&] { first = edge.Get_fanCount(); });
    ASSERT_TRUE(fans.WaitForHeld());
    std::latch connected(1);
    std::thread waiting(
        [&]
        {
            sd_bus* own = nullptr;
            sd_bus_default_system(&own);
            connected.count_down();
            FanEdge::Variant value;
            edge.Get_fanCount(value);
            second = std::get<uint8_t>(value);
            sd_bus_flush_close_unref(own);
        });
    connected.wait();
    FanEdge::Variant value;
    edge.GetLocked_fanCount(value);
    EXPECT_EQ(value, FanEdge::Variant(uint8_t{2}));
    for (int i = 0; i < 50; ++i) // more than the other thread needs for one
    {
        bool ok = false;
        int32_t out = 0;
        edge.Call_updateFanPWMData(ok, "fan1", uint8_t{1}, out);
        EXPECT_TRUE(ok);
    }
    EXPECT_EQ(fans.Calls("Get").size(), 2U) << "the second plain form has sent nothing yet";
    fans->SetQuietly({{"fanCount", 6}});
    fans.Release();
    holding.join();
    waiting.join();
    EXPECT_EQ(first, 6);
    EXPECT_EQ(second, 6);
}

} // namespace
