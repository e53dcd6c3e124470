// Readers in other threads, and children.

#include "fixture.hpp"
#include "in_child.hpp"

#include <atomic>
#include <thread>

namespace
{

class LiveThreads : public LiveTest
{
};

// Each owner has a count and a fan of the same number: whoever reads both sees one owner.
TEST_F(LiveThreads, ReadersSeeOneOwner)
{
    const auto fan = [](uint8_t n) { return FanMap{{"fan", {n, n, n, true}}}; };
    StartFans();
    (*fans)->SetQuietly({{"fanCount", uint8_t{0}}, {"fanPWMData", fan(0)}});
    const bmcbus::Live<Fans> live = Follow();
    std::atomic<bool> done = false;
    std::atomic<int> mixed = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
    {
        readers.emplace_back(
            [&]
            {
                while (!done)
                {
                    uint8_t count = 0;
                    FanMap data;
                    live->Get(count, data);
                    mixed += !data.empty() && std::get<0>(data.at("fan")) != count ? 1 : 0;
                    static_cast<void>(live.State());
                    static_cast<void>(live.Age());
                }
            });
    }
    for (uint8_t round = 1; round < 30; ++round)
    {
        fans->Crash();
        (*fans)->SetQuietly({{"fanCount", round}, {"fanPWMData", fan(round)}});
        fans->Start();
        EXPECT_TRUE(Until(
            [&] { return live.State() == LiveState::Live && live->Get_fanCount() == round; }));
        const auto next = static_cast<uint8_t>(round + 100);
        (*fans)->Set({{"fanCount", next}, {"fanPWMData", fan(next)}});
        EXPECT_TRUE(Until([&] { return live->Get_fanCount() == next; }));
    }
    done = true;
    for (std::thread& reader : readers)
    {
        reader.join();
    }
    EXPECT_EQ(mixed, 0);
}

TEST_F(LiveThreads, AChildMayDestroy)
{
    StartFans();
    auto live = std::make_unique<bmcbus::Live<Fans>>(Follow());
    auto looking = std::make_unique<bmcbus::Live<Fans>>(Follow(""));
    ASSERT_TRUE(Becomes(*live, LiveState::Live));
    fans->On("GetAll").Hold();
    auto reading = std::make_unique<bmcbus::Live<Fans>>(Follow());
    ASSERT_TRUE(Until([&] { return fans->WaitForHeld(1, std::chrono::milliseconds(1)); }));
    const int status = test::ExitOfChild(
        [&]
        {
            const uint8_t count = (*live)->Get_fanCount();
            reading.reset();
            looking.reset();
            live.reset();
            return count;
        });
    EXPECT_EQ(status, 2);
    fans->Release();
    EXPECT_TRUE(Becomes(*reading, LiveState::Live)) << "the parent's goes on";
    (*fans)->Set("fanCount", uint8_t{3});
    EXPECT_TRUE(Until([&] { return (*live)->Get_fanCount() == 3; }));
}

} // namespace
