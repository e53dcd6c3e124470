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

TEST(PeersTest, MessagesReachDecodersAndTheOtherEnd)
{
    const Peers peers;
    const std::vector<Value> body{std::map<std::string, std::vector<int>>{{"k", {1, 2}}}, "tail"};
    const MessagePtr message = peers.Message(body, "com.example.I", "M", "/p");
    EXPECT_THAT(sd_bus_message_get_signature(message.get(), 1), StrEq("a{sai}s"));
    EXPECT_EQ(Value::ReadAll(message.get()), body);
    sd_bus_message_rewind(message.get(), 1);
    EXPECT_EQ(Value::Read(message.get()), body.front());

    // A call over the pair, answered by hand.
    std::string reply;
    const auto answer = [](sd_bus_message* call, void*, sd_bus_error*)
    {
        Service::Reply(call, {Value::ReadAll(call).front(), 7});
        return 1;
    };
    const auto keep = [](sd_bus_message* m, void* text, sd_bus_error*)
    {
        *static_cast<std::string*>(text) = TextOf(Value::ReadAll(m));
        return 1;
    };
    ASSERT_GE(sd_bus_add_object(peers.Server(), nullptr, "/p", answer, nullptr), 0);
    ASSERT_GE(sd_bus_call_method_async(peers.Client(), nullptr, nullptr, "/p", "com.example.I",
                                       "Echo", keep, &reply, "s", "hello"),
              0);
    EXPECT_TRUE(peers.Pump([&] { return !reply.empty(); }));
    EXPECT_EQ(reply, R"(si "hello" 7)");
    EXPECT_FALSE(peers.Pump([] { return false; })) << "ends when nothing is left";
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
