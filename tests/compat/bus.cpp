// Connections and calls.

#include "in_child.hpp"

#include <bmcbus/sdbusplus.hpp>
#include <bmcbus/testing.hpp>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>

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
    EXPECT_EQ(test::ExitOfChild(
                  [&]
                  {
                      try
                      {
                          const Bus inherited(Connection(bus));
                          return 1;
                      }
                      catch (const std::logic_error&)
                      {
                          return 0;
                      }
                  }),
              0);
    Emit(bus, "still usable");
}

TEST_F(BusTest, NoConnectionAtAll)
{
    Bus none(nullptr);
    EXPECT_EQ(What([&] { NewCall(none); }),
              "sd_bus_message_new_method_call: System.Error.ENOTCONN: "
              "Transport endpoint is not connected");
}

} // namespace
