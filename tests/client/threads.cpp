// Registries and accessors from many threads at once. Worth most under the thread sanitizer.

#include "fixture.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <atomic>
#include <thread>

namespace
{

constexpr int threadCount = 6;
constexpr int rounds = 15;

class Threads : public ClientTest
{
  protected:
    // Runs `work(number)` on several threads at once.
    template <class Work>
    static void Run(Work work)
    {
        std::vector<std::thread> threads;
        for (int i = 0; i < threadCount; ++i)
        {
            threads.emplace_back(work, i);
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
};

TEST_F(Threads, ShareARegistry)
{
    Fan::Create(fanPath, fanService);
    Run(
        [](int number)
        {
            // Each thread's objects live on the thread's own connection.
            sd_bus* own = nullptr;
            ASSERT_GE(sd_bus_default_system(&own), 0);
            const std::string path = "/thread/" + std::to_string(number);
            for (int i = 0; i < rounds; ++i)
            {
                Fan* const fan = Fan::Create(path, fanService);
                FanSignal* const signal = FanSignal::Create(path);
                EXPECT_EQ(Fan::Lookup(path), fan);
                EXPECT_EQ(FanSignal::Lookup(path), signal);
                EXPECT_NE(Fan::Lookup(fanPath), nullptr);
                Fan::Unsave(fan);
                EXPECT_EQ(Fan::Lookup(path), nullptr);
                Fan::Save(fan);
                Fan::Release(fan);
                FanSignal::Release(signal);
                EXPECT_EQ(Fan::Lookup(path), nullptr);
            }
            sd_bus_flush_close_unref(own);
        });
    EXPECT_EQ(Fan::active.size(), 1U);
    EXPECT_TRUE(FanSignal::active.empty());
}

TEST_F(Threads, ReleaseTheirOwnObjects)
{
    Fan* const kept = Fan::Create(fanPath, fanService);
    FanSignal::Create(fanPath);
    Run(
        [&](int number)
        {
            sd_bus* own = nullptr;
            ASSERT_GE(sd_bus_default_system(&own), 0);
            const std::string path = "/thread/" + std::to_string(number);
            for (int i = 0; i < rounds; ++i)
            {
                Fan::Create(path, fanService);
                FanSignal::Create(path);
            }
            Fan::CleanupThread();
            EXPECT_EQ(Fan::Lookup(path), nullptr);
            EXPECT_NE(FanSignal::Lookup(path), nullptr);
            FanSignal::CleanupThread();
            sd_bus_flush_close_unref(own);
        });
    EXPECT_EQ(Fan::active, std::vector<Fan*>{kept});
    EXPECT_EQ(FanSignal::active.size(), 1U);
}

TEST_F(Threads, ReadAndWriteWhileSignalsAreHandled)
{
    static std::atomic<size_t> calls;
    calls = 0;
    Fan fan(fanPath, fanService);
    FanSignal signal(fanPath);
    std::atomic<bool> done = false;
    std::thread sender(
        [&]
        {
            for (uint8_t i = 1; i <= 100; ++i)
            {
                fans->Set({{"fanCount", i}, {"fanPWMData", FanMap{{"fan", {i, i, i, true}}}}});
                fans->Emit("notifyFanReportingData", i, FanMap{{"fan", {i, i, i, true}}});
            }
        });
    std::thread users(
        [&]
        {
            Run(
                [&](int)
                {
                    fan.AddCallback(
                        [](Fan* own, void*)
                        {
                            ++calls;
                            own->Set_fanPWMData(own->Get_fanPWMData());
                        });
                    signal.AddCallback(nullptr);
                    while (!done)
                    {
                        uint8_t count = 0;
                        FanMap map;
                        signal.Get(count, map);
                        if (!map.empty())
                        {
                            EXPECT_EQ(std::get<0>(map["fan"]), count) << "of one signal";
                        }
                        fan.Get(count, map);
                        fan.SetByName("fanPWMData", map);
                        fan.Ready();
                        signal.Ready();
                        EXPECT_EQ(fan.Path(), signal.Path());
                        signal.SignalCount();
                    }
                });
        });
    EXPECT_TRUE(kit::Dispatch(connection, [&]
                              { return fan.SignalCount() == 100 && signal.SignalCount() == 100; }));
    done = true;
    users.join();
    sender.join();
    EXPECT_EQ(fan.Get_fanCount(), 100);
    EXPECT_GT(calls, 0U);
}

TEST_F(Threads, HoldTheMutexAroundSeveralValues)
{
    Fan fan(fanPath, fanService);
    Run(
        [&](int number)
        {
            const auto value = static_cast<uint8_t>(number);
            for (int i = 0; i < rounds; ++i)
            {
                {
                    const std::lock_guard lock(fan.object_mutex);
                    fan.SetLocked_fanCount(value);
                    fan.SetByNameLocked("fanPWMData", FanMap{{"fan", {value, 0, 0, true}}});
                }
                uint8_t count = 0;
                FanMap map;
                fan.Get(count, map);
                EXPECT_EQ(std::get<0>(map.at("fan")), count);
            }
        });
}

// The handlers are public; whoever calls them has messages from elsewhere.
TEST_F(Threads, HandleTheirOwnMessages)
{
    static std::atomic<uint32_t> calls;
    calls = 0;
    constexpr uint32_t messages = 1000;
    Fan fan(fanPath, fanService,
            [](Fan*, void*)
            {
                ++calls;
                std::this_thread::yield();
            });
    Run(
        [&](int)
        {
            const kit::Peers peers;
            const kit::MessagePtr raw = peers.Message({"", kit::AsPropertyMap({})});
            bmcbus::Message message(raw.get());
            for (uint32_t i = 0; i < messages; ++i)
            {
                sd_bus_message_rewind(raw.get(), 1);
                fan.ObjectCallbackChanged(message);
            }
        });
    EXPECT_EQ(fan.SignalCount(), threadCount * messages);
    EXPECT_EQ(calls, threadCount * messages);
}

TEST_F(Threads, CallThroughOneProxy)
{
    FanEdge edge(fanService, fanPath);
    Run(
        [&](int)
        {
            for (int i = 0; i < rounds; ++i)
            {
                bool ok = false;
                int32_t out = 0;
                EXPECT_EQ(edge.Get_fanCount(), 2);
                edge.Call_updateFanPWMData(ok, "fan1", uint8_t{1}, out);
                EXPECT_TRUE(ok);
                EXPECT_EQ(edge.Service(), fanService);
            }
        });
}

} // namespace
