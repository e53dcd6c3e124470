// The monitor sees what others send, and nothing of the kit's own.

#include "client.hpp"

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace bmcbus::testing;
using test::Client;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;

namespace
{

constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";

std::vector<std::string> Texts(const std::vector<WireMessage>& messages)
{
    std::vector<std::string> texts;
    for (const WireMessage& message : messages)
    {
        texts.push_back(message.Text());
    }
    return texts;
}

TEST(MonitorTest, RecordsEverythingButTheKitsOwn)
{
    PrivateBus bus;
    FakeService fans("com.example.Fans", "/fans", {fanInterface});
    const Client client;
    const std::string us = client.UniqueName();
    const std::string them = fans.UniqueName();
    Monitor monitor;
    EXPECT_THAT(Texts(monitor.Messages()), IsEmpty());

    client.Call("com.example.Fans", "/fans", fanInterface, "updateFanPWMData", {"f", uint8_t{1}});
    fans->Set("fanCount", 3);
    fans.On("GetAll").ReplyError("com.example.Broken", "text");
    client.Properties("com.example.Fans", "/fans", "GetAll", {fanInterface});
    EXPECT_THAT(
        Texts(monitor.Messages()),
        ElementsAre("method_call " + us + " > com.example.Fans /fans " + fanInterface +
                        R"(.updateFanPWMData sy "f" 1)",
                    "method_return " + them + " > " + us + " i 0",
                    "signal " + them +
                        " > * /fans org.freedesktop.DBus.Properties.PropertiesChanged sa{sv}as \"" +
                        fanInterface + R"(" 1 "fanCount" y 3 0)",
                    "method_call " + us +
                        " > com.example.Fans /fans org.freedesktop.DBus.Properties.GetAll s \"" +
                        fanInterface + "\"",
                    "error " + them + " > " + us + R"( com.example.Broken s "text")"));
    EXPECT_EQ(monitor.Signals("PropertiesChanged").size(), 1U);
    const std::vector<WireMessage> calls = monitor.Calls("GetAll");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls.front().Body(), "s \"" + std::string(fanInterface) + "\"");
    EXPECT_TRUE(calls.front().wantsReply);
    const auto errors = monitor.Messages([](const WireMessage& m) { return m.type == "error"; });
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors.front().replyTo, calls.front().serial);

    monitor.Clear();
    fans->Set("fanCount", 4);
    EXPECT_TRUE(monitor.WaitFor([](const WireMessage& m) { return m.type == "signal"; }));
    EXPECT_EQ(monitor.Messages().size(), 1U);
}

TEST(MonitorTest, SeesMatchRulesAndTheBusesEnd)
{
    PrivateBus bus;
    Monitor monitor(bus.Address());
    std::vector<std::string> signals;
    {
        const Client client;
        client.Collect("type='signal',member='M',path='/p',", signals);
    }
    const std::vector<WireMessage> rules = monitor.Calls("AddMatch");
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules.front().Body(), R"(s "type='signal',member='M',path='/p',")");
    bus.Kill();
    EXPECT_THROW(monitor.Messages(), std::runtime_error);
    EXPECT_THROW(Monitor(bus.Address()), std::system_error);
}

TEST(PeersTest, TruncatedReadsAreRefused)
{
    const Peers peers;
    const MessagePtr message = peers.Message({});
    EXPECT_THROW(Value::Read(message.get()), std::system_error);
    EXPECT_THAT(Value::ReadAll(message.get()), IsEmpty());
    EXPECT_THROW(peers.Message({Path{"no path"}}), std::system_error);
}

} // namespace
