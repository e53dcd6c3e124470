// What waits in the connection of a thread that makes blocking calls and dispatches nothing.

#include "fixture.hpp"

#include <bmcbus/connection.hpp>

#include <functional>
#include <thread>

namespace
{

class Backlog : public ClientTest
{
  protected:
    // Runs `work` in a thread with a connection of its own.
    static void InAThread(const std::function<void(sd_bus*)>& work)
    {
        std::thread(
            [&]
            {
                sd_bus* own = nullptr;
                ASSERT_GE(sd_bus_default_system(&own), 0);
                work(own);
                sd_bus_flush_close_unref(own);
            })
            .join();
    }

    static uint64_t Queued(sd_bus* bus)
    {
        uint64_t queued = 0;
        EXPECT_GE(sd_bus_get_n_queued_read(bus, &queued), 0);
        return queued;
    }

    // A call that is answered when its time is over.
    void CallTooLate(sd_bus* own)
    {
        sd_bus_set_method_call_timeout(own, 1000);
        fans.On("Get").Once().Hold();
        FanEdge edge(fanService, fanPath);
        bool ok = true;
        uint8_t count = 0;
        edge.Get_fanCount(ok, count);
        EXPECT_FALSE(ok);
        EXPECT_TRUE(fans.WaitForHeld());
        fans.Release();
        sd_bus_set_method_call_timeout(own, 0);
    }

    // The reply to this call comes after everything that was sent before.
    void Call()
    {
        FanEdge edge(fanService, fanPath);
        EXPECT_EQ(edge.Get_fanCount(), 2);
    }

    // Signals that the daemon brings without a rule.
    void Send(const std::string& to, int count = 1)
    {
        for (int i = 0; i < count; ++i)
        {
            sd_bus_message* raw = nullptr;
            ASSERT_GE(sd_bus_message_new_signal(connection, &raw, "/a", "com.example.A", "S"), 0);
            const bmcbus::MessageRef signal(raw);
            ASSERT_GE(sd_bus_send_to(connection, raw, to.c_str(), nullptr), 0);
        }
        // They have passed the daemon when this is answered.
        ASSERT_GE(sd_bus_call_method(connection, "org.freedesktop.DBus", "/",
                                     "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr,
                                     nullptr),
                  0);
    }
};

TEST_F(Backlog, LateRepliesAndSignalsOfAThreadWithDirectCallsOnlyAreDropped)
{
    InAThread(
        [&](sd_bus* own)
        {
            const char* name = nullptr;
            ASSERT_GE(sd_bus_get_unique_name(own, &name), 0);
            for (int i = 0; i < 3; ++i)
            {
                CallTooLate(own);
                Send(name);
                Call();
                EXPECT_EQ(Queued(own), 0U);
            }
        });
}

TEST_F(Backlog, WhatHandlersMayWantIsLeftToThem)
{
    InAThread(
        [&](sd_bus* own)
        {
            Fan fan(fanPath, fanService);
            fans->Set("fanCount", 9);
            CallTooLate(own);
            fans->Set("fanCount", 2);
            Call();
            EXPECT_EQ(fan.SignalCount(), 0U) << "handled by the thread, not by a call";
            EXPECT_GE(Queued(own), 3U);
            EXPECT_GE(bmcbus::ProcessQueue(), 3);
            EXPECT_EQ(fan.SignalCount(), 2U);
            EXPECT_EQ(Queued(own), 0U);
        });
}

TEST_F(Backlog, CallsToAThreadsObjectsWaitInTheirOrder)
{
    InAThread(
        [&](sd_bus* own)
        {
            const char* name = nullptr;
            ASSERT_GE(sd_bus_get_unique_name(own, &name), 0);
            std::vector<std::string> members;
            ASSERT_GE(sd_bus_add_fallback(
                          own, nullptr, "/",
                          [](sd_bus_message* message, void* to, sd_bus_error*)
                          {
                              static_cast<std::vector<std::string>*>(to)->emplace_back(
                                  sd_bus_message_get_member(message));
                              return sd_bus_reply_method_return(message, nullptr);
                          },
                          &members),
                      0);
            Call();
            for (const char* const member : {"First", "Second"})
            {
                ASSERT_GE(sd_bus_call_method_async(connection, nullptr, name, "/a", "com.example.A",
                                                   member, nullptr, nullptr, nullptr),
                          0);
                Send(name);
                Call();
            }
            EXPECT_TRUE(members.empty());
            EXPECT_EQ(bmcbus::ProcessQueue(own), 2);
            EXPECT_EQ(members, (std::vector<std::string>{"First", "Second"}));
        });
}

TEST_F(Backlog, IsToldOfOnceWhenItGrows)
{
    InAThread(
        [&](sd_bus* own)
        {
            const char* name = nullptr;
            ASSERT_GE(sd_bus_get_unique_name(own, &name), 0);
            const FanSignal signal(fanPath);
            test::ClearLog();
            Send(name, 10'001);
            Call();
            Call();
            EXPECT_THAT(
                test::Log(4),
                testing::ElementsAre(testing::Field(
                    &test::LogLine::text,
                    testing::EndsWith(" messages wait on this thread's connection, process it: "
                                      "bmcbus::ProcessQueue()"))));
            EXPECT_GT(bmcbus::ProcessQueue(own), 10'000);
        });
}

TEST_F(Backlog, IsEmptyWithoutAConnection)
{
    std::thread([] { EXPECT_EQ(bmcbus::ProcessQueue(), 0); }).join();
}

} // namespace
