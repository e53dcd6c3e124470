// Connections, calls and subscriptions.

#include <bmcbus/sdbusplus.hpp>
#include <bmcbus/testing.hpp>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef MATCH_COMPILES
#include <sdbusplus/bus/match.hpp>
#endif

#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using bmcbus::Bus;
using bmcbus::Connection;
using bmcbus::Error;
using bmcbus::Message;

const char* const interface = "com.tamm.bmc.debug.dataorigin";

Message NewCall(Bus& bus)
{
    return bus.new_method_call("com.example", "/path", interface, "debugmethod");
}

template <typename F>
std::string What(F&& f)
{
    try
    {
        f();
    }
    catch (const Error& e)
    {
        return e.what();
    }
    return "none";
}

// Tells when the last reference of a connection is dropped.
void NoteEnd(sd_bus* bus, bool& ended)
{
    sd_bus_slot* slot = nullptr;
    ASSERT_GE(sd_bus_add_filter(
                  bus, &slot, [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, &ended),
              0);
    sd_bus_slot_set_destroy_callback(slot, [](void* end) { *static_cast<bool*>(end) = true; });
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
}

class BusTest : public testing::Test
{
  protected:
    BusTest()
    {
        service->OnCall("debugmethod", [](const auto& call) { return call.arguments; });
    }

    // Everything that arrived when the signal had.
    void Emit(Bus& bus, const char* text)
    {
        service->Emit("debugsignal", text);
        EXPECT_TRUE(bmcbus::testing::DispatchPending(Connection(bus)));
    }

    bmcbus::testing::PrivateBus daemon;
    bmcbus::testing::FakeService service{"com.example", "/path", {interface}};
};

TEST_F(BusTest, WrappersShareTheThreadsConnection)
{
    static_assert(!std::is_default_constructible_v<Bus> && !std::is_copy_constructible_v<Bus>);
    bool ended = false;
    {
        Bus first = sdbusplus::bus::new_default_system();
        NoteEnd(Connection(first), ended);
        Bus second = sdbusplus::bus::new_default_system();
        EXPECT_EQ(Connection(first), Connection(second));
        sd_bus* const raw = Connection(first);
        Bus third(raw);
        Bus fourth(sd_bus_ref(raw), std::false_type());
        Bus moved(std::move(third));
        EXPECT_EQ(Connection(moved), raw);
        moved = std::move(fourth);
        EXPECT_EQ(Connection(moved), raw);
        EXPECT_FALSE(ended);
    }
    EXPECT_TRUE(ended);
}

TEST_F(BusTest, CallsAndReadsTheReply)
{
    std::optional<Message> reply;
    {
        Bus bus = sdbusplus::bus::new_default_system();
        Message call = NewCall(bus);
        call.append("text");
        reply = bus.call(call);
        EXPECT_EQ(Connection(bus), sd_bus_message_get_bus(reply->get()));
        Bus same = reply->get_bus();
        EXPECT_EQ(Connection(bus), Connection(same));
    }
    std::string text;
    reply->read(text);
    EXPECT_EQ(text, "text");
}

TEST_F(BusTest, FailedCallsThrow)
{
    Bus bus = sdbusplus::bus::new_default_system();
    const auto call = [&](uint64_t timeout)
    {
        Message made = NewCall(bus);
        made.append("text");
        bus.call(made, timeout);
    };
    service.On("debugmethod").Once().ReplyError("com.example.Error.Foo", "text");
    EXPECT_EQ(What([&] { call(0); }), "sd_bus_call: com.example.Error.Foo: text");
    service.On("debugmethod").Once().NoReply();
    EXPECT_EQ(What([&] { call(1000); }),
              "sd_bus_call: org.freedesktop.DBus.Error.Timeout: Connection timed out");
    const std::string invalid = "sd_bus_message_new_method_call: "
                                "org.freedesktop.DBus.Error.InvalidArgs: Invalid argument";
    EXPECT_EQ(What([&] { bus.new_method_call("", "/path", "a.b", "M"); }), invalid);
    EXPECT_EQ(What([&] { bus.new_method_call("a.b", "path", "a.b", "M"); }), invalid);
    EXPECT_EQ(What([&] { bus.new_method_call("a.b", "/path", "b", "M"); }), invalid);
    EXPECT_EQ(What([&] { bus.new_method_call("a.b", "/path", "a.b", ""); }), invalid);
    Emit(bus, "still usable");
}

TEST_F(BusTest, ADeadConnectionIsRefusedAndDropped)
{
    bool ended = false;
    {
        Bus bus = sdbusplus::bus::new_default_system();
        NoteEnd(Connection(bus), ended);
        daemon.Kill();
        while (sd_bus_process(Connection(bus), nullptr) > 0)
        {
        }
        sd_bus_close(Connection(bus));
        EXPECT_THROW(Bus(Connection(bus)), std::logic_error);
        EXPECT_THROW(Bus(sd_bus_ref(Connection(bus)), std::false_type()), std::logic_error);
        EXPECT_FALSE(ended);
    }
    EXPECT_TRUE(ended) << "a refused wrapper kept its reference";
}

TEST_F(BusTest, AForkedChildCannotUseTheConnection)
{
    Bus bus = sdbusplus::bus::new_default_system();
    const pid_t child = fork();
    if (child == 0)
    {
        int code = 1;
        try
        {
            const Bus inherited(Connection(bus));
        }
        catch (const std::logic_error&)
        {
            code = 0;
        }
        _exit(code);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    Emit(bus, "still usable");
}

TEST_F(BusTest, NoConnectionAtAll)
{
    Bus none(nullptr);
    EXPECT_EQ(What([&] { NewCall(none); }),
              "sd_bus_message_new_method_call: System.Error.ENOTCONN: "
              "Transport endpoint is not connected");
}

#ifdef MATCH_COMPILES

using Match = sdbusplus::bus::match_t;
namespace rules = sdbusplus::bus::match::rules;

std::string Rule()
{
    return rules::type::signal() + rules::path("/path") + rules::interface(interface) +
           rules::member("debugsignal");
}

TEST(Rules, EndWithACommaAndEscapeNothing)
{
    EXPECT_EQ(Rule(), "type='signal',path='/path',"
                      "interface='com.tamm.bmc.debug.dataorigin',member='debugsignal',");
    EXPECT_EQ(rules::path("a'b"), "path='a'b',");
}

TEST_F(BusTest, EveryMatchingHandlerSeesTheWholeBody)
{
    Bus bus = sdbusplus::bus::new_default_system();
    std::vector<std::string> seen;
    const auto handler = [&](Message& m)
    {
        std::string text;
        m.read(text);
        seen.push_back(text);
    };
    Match first(bus, Rule(), handler);
    std::optional<Match> second(std::in_place, bus, Rule().c_str(), handler);
    Match third(
        bus, Rule(),
        [](sd_bus_message* m, void* context, sd_bus_error*)
        {
            const char* text = nullptr;
            sd_bus_message_read(m, "s", &text);
            static_cast<std::vector<std::string>*>(context)->push_back(text);
            return 0;
        },
        &seen);
    Match other(bus, rules::type::signal() + rules::member("Other"),
                [&](Message&) { seen.push_back("other"); });
    Emit(bus, "a");
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "a", "a"}));
    second.reset();
    Match moved(std::move(first));
    Emit(bus, "b");
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "a", "a", "b", "b"}));
}

TEST_F(BusTest, AMatchKeepsTheConnection)
{
    bool ended = false;
    std::optional<Match> match;
    int count = 0;
    sd_bus* raw = nullptr;
    {
        Bus bus = sdbusplus::bus::new_default_system();
        raw = Connection(bus);
        NoteEnd(raw, ended);
        match.emplace(bus, Rule(), [&](Message&) { ++count; });
    }
    EXPECT_FALSE(ended);
    {
        Bus again(raw);
        Emit(again, "x");
    }
    EXPECT_EQ(count, 1);
    match.reset();
    EXPECT_TRUE(ended);
}

TEST_F(BusTest, AMatchMayGoInItsOwnHandler)
{
    Bus bus = sdbusplus::bus::new_default_system();
    static std::optional<Match> match;
    static int count;
    count = 0;
    const auto once = [](sd_bus_message*, void*, sd_bus_error*)
    {
        ++count;
        match.reset();
        return 0;
    };
    match.emplace(bus, Rule(), +once);
    Emit(bus, "first");
    Emit(bus, "second");
    EXPECT_EQ(count, 1);

    // The function goes with the match: it must not use what it captured afterwards.
    match.emplace(bus, Rule(),
                  [](Message& m)
                  {
                      match.reset();
                      std::string text;
                      m.read(text);
                      count += text == "third" ? 10 : 100;
                  });
    Emit(bus, "third");
    Emit(bus, "fourth");
    EXPECT_EQ(count, 11);
}

TEST_F(BusTest, ARefusedRuleDoesNotHarmTheConnection)
{
    Bus bus = sdbusplus::bus::new_default_system();
    try
    {
        // Older generations leave an empty subscription, newer ones throw.
        Match match(bus, rules::type::signal() + rules::path("refused"), [](Message&) {});
    }
    catch (const Error& e)
    {
        EXPECT_STREQ(e.what(), "sd_bus_match: org.freedesktop.DBus.Error.InvalidArgs: "
                               "Invalid argument");
    }
    Emit(bus, "still usable");
}

#endif

} // namespace
