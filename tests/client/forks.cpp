// A child that is forked while other threads of the parent are inside the library, and a process
// that ends meanwhile.

#include "fixture.hpp"
#include "in_child.hpp"

#include <object_mapper.hpp>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace
{

class Forks : public ClientTest
{
  protected:
    // Lets go of what is the parent's.
    void ConnectAnew()
    {
        sd_bus_unref(connection);
        sd_bus_default_system(&connection);
    }

    static bool Reads(FanEdge& edge)
    {
        bool ok = false;
        uint8_t count = 0;
        edge.Get_fanCount(ok, count);
        return ok && count == 2;
    }
};

TEST_F(Forks, DuringADirectCallOfAnotherThread)
{
    FanEdge edge(fanService, fanPath);
    fans.On("Get").Once().Hold();
    std::thread other([&] { EXPECT_TRUE(Reads(edge)); });
    ASSERT_TRUE(fans.WaitForHeld());
    EXPECT_EQ(test::ExitOfChild(
                  [&]
                  {
                      ConnectAnew();
                      FanEdge own("", fanPath);
                      return edge.Path() == fanPath && Reads(edge) && Reads(own) ? 0 : 1;
                  }),
              0);
    fans.Release();
    other.join();
    EXPECT_TRUE(Reads(edge));
}

TEST_F(Forks, WhileOthersUseRegistriesAndTheObjectMapper)
{
    Fan* const inherited = Fan::Create(fanPath, fanService);
    std::atomic<bool> stop = false;
    const auto churn = [&]
    {
        sd_bus* own = nullptr;
        ASSERT_GE(sd_bus_default_system(&own), 0);
        while (!stop)
        {
            Fan* const fan = Fan::Create("/other", fanService, true);
            EXPECT_NE(Fan::Lookup(fanPath), nullptr);
            Fan::Release(fan);
            std::string service;
            ObjectMapper::Wrappers::PathAndInterfaceToService(fanPath, fanInterface, service);
        }
        sd_bus_flush_close_unref(own);
    };
    std::thread first(churn);
    std::thread second(churn);
    for (int i = 0; i < 20; ++i)
    {
        EXPECT_EQ(test::ExitOfChild(
                      [&]
                      {
                          Fan::Release(inherited); // it refers to the parent's connection
                          ConnectAnew();
                          const bool made = Fan::Create(fanPath)->Ready();
                          Fan::Cleanup();
                          return made && Fan::active.empty() ? 0 : 1;
                      }),
                  0);
    }
    stop = true;
    first.join();
    second.join();
}

// What is registered is released first; it would be lost when the registry is emptied.
[[noreturn]] void EndWhileAThreadAsks()
{
    for (int i = 0; i < 100; ++i)
    {
        Fan::Create("/elsewhere", fanService, true);
    }
    Fan::Cleanup();
    std::atomic<bool> asking = false;
    std::thread(
        [&]
        {
            while (true)
            {
                Fan::Lookup("/none");
                asking = true;
            }
        })
        .detach();
    while (!asking)
    {
        std::this_thread::yield();
    }
    std::exit(0);
}

TEST_F(Forks, EndWhileAThreadAsksTheRegistry)
{
    // A program of its own: ThreadSanitizer knows no threads in children of threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_EXIT(EndWhileAThreadAsks(), ::testing::ExitedWithCode(0), "");
    }
}

} // namespace
