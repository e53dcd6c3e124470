// The private bus: nothing of it is left behind, and it can be broken on purpose.

#include "client.hpp"
#include "in_child.hpp"

#include <bmcbus/testing.hpp>

#include <utility> // Boost needs it first

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

using namespace bmcbus::testing;
using test::Client;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{

constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";

std::string Variable()
{
    const char* value = std::getenv(variable);
    return value == nullptr ? "" : value;
}

// Process ids of the daemons that serve `folder`.
std::set<pid_t> DaemonsOf(const std::filesystem::path& folder)
{
    std::set<pid_t> daemons;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
    {
        const std::string number = entry.path().filename();
        std::ostringstream command; // its words end in zero bytes
        command << std::ifstream(entry.path() / "cmdline").rdbuf();
        if (std::isdigit(static_cast<unsigned char>(number.front())) != 0 &&
            command.str().find("--config-file=" + (folder / "bus.conf").string()) !=
                std::string::npos)
        {
            daemons.insert(static_cast<pid_t>(std::stol(number)));
        }
    }
    return daemons;
}

TEST(PrivateBusTest, LeavesNothingBehind)
{
    setenv(variable, "unix:path=/before", 1);
    std::filesystem::path folder;
    {
        const PrivateBus bus;
        folder = bus.Folder();
        EXPECT_EQ(Variable(), bus.Address());
        EXPECT_TRUE(bus.Running());
        EXPECT_EQ(DaemonsOf(folder).size(), 1U);
        EXPECT_THAT(bus.Connections(), IsEmpty());
        {
            const Client client;
            EXPECT_THAT(bus.Connections(), ElementsAre(client.UniqueName()));
        }
        EXPECT_TRUE(Until([&] { return bus.Connections().empty(); }));
        const PrivateBus inner; // the last one made is the one in use
        EXPECT_EQ(Variable(), inner.Address());
    }
    EXPECT_EQ(Variable(), "unix:path=/before");
    EXPECT_FALSE(std::filesystem::exists(folder));
    EXPECT_THAT(DaemonsOf(folder), IsEmpty());
    unsetenv(variable);
    {
        const PrivateBus bus;
    }
    EXPECT_EQ(std::getenv(variable), nullptr);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST(PrivateBusTest, DaemonDiesWithTheProcess)
{
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t child = fork();
    if (child == 0)
    {
        // No destructor runs here.
        const PrivateBus bus;
        const std::string folder = bus.Folder();
        const bool told = write(report[1], folder.c_str(), folder.size()) > 0;
        kill(getpid(), told ? SIGKILL : SIGABRT);
    }
    char folder[256] = {};
    close(report[1]);
    ASSERT_GT(read(report[0], folder, sizeof(folder) - 1), 0);
    close(report[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(Until([&] { return DaemonsOf(folder).empty(); }));
    std::filesystem::remove_all(folder);
}

TEST(PrivateBusTest, DaemonOutlivesTheThreadThatStartedIt)
{
    std::unique_ptr<PrivateBus> bus;
    std::thread([&] { bus = std::make_unique<PrivateBus>(); }).join();
    EXPECT_THAT(bus->Connections(), IsEmpty());
    EXPECT_TRUE(bus->Running());
}

// Names that an address or the daemon's configuration would read as something else, and a long one.
TEST(PrivateBusTest, OddTmpdir)
{
    const std::string before = std::filesystem::temp_directory_path();
    const PrivateBus place;
    for (const std::string name :
         {"a@b", "a b", "a+b", "a,b;c=d", "a%20b", "<&amp;>\"'", "\xc3\xa4"})
    {
        const std::string folder = place.Folder() / name;
        ASSERT_TRUE(std::filesystem::create_directory(folder));
        setenv("TMPDIR", folder.c_str(), 1);
        const PrivateBus bus;
        EXPECT_EQ(bus.Folder().parent_path(), folder);
        const Client client;
        EXPECT_THAT(bus.Connections(), ElementsAre(client.UniqueName()));
    }
    const std::string deep = place.Folder() / std::string(150, 'x');
    ASSERT_TRUE(std::filesystem::create_directory(deep));
    setenv("TMPDIR", deep.c_str(), 1);
    {
        const PrivateBus bus;
        EXPECT_TRUE(bus.Running());
    }
    setenv("TMPDIR", before.c_str(), 1);
}

TEST(PrivateBusTest, MissingOrBrokenDaemonIsNamed)
{
    const auto failure = []() -> std::string
    {
        try
        {
            const PrivateBus bus;
        }
        catch (const std::exception& error)
        {
            return error.what();
        }
        return "started";
    };
    setenv("BMCBUS_DBUS_DAEMON", "/bin/false", 1);
    EXPECT_THAT(failure(), HasSubstr("dbus-daemon did not start"));
    setenv("BMCBUS_DBUS_DAEMON", "/nowhere/dbus-daemon", 1);
    EXPECT_THAT(failure(), HasSubstr("dbus-daemon did not start"));
    unsetenv("BMCBUS_DBUS_DAEMON");
    EXPECT_EQ(failure(), "started");
}

TEST(PrivateBusTest, KillLosesConnectionsAndRestartTakesNewOnes)
{
    PrivateBus bus;
    const std::string address = bus.Address();
    FakeService service({"com.example.Service"});
    const Client lost;
    bus.Kill();
    EXPECT_FALSE(bus.Running());
    EXPECT_TRUE(Until([&] { return !service.Connected(); }));
    EXPECT_TRUE(
        Until([&] { return sd_bus_process(lost, nullptr) < 0 || sd_bus_is_open(lost) == 0; }));
    EXPECT_THROW(Client(), std::runtime_error);
    EXPECT_THROW(service.Start(), std::system_error);
    EXPECT_FALSE(service.Connected());

    bus.Restart();
    EXPECT_EQ(bus.Address(), address);
    service.Start();
    EXPECT_THAT(bus.Connections(), ElementsAre(service.UniqueName()));
    bus.Restart();
    EXPECT_TRUE(Until([&] { return !service.Connected(); }));
}

TEST(WaitTest, UntilStopsAtTheBound)
{
    int asked = 0;
    EXPECT_FALSE(Until([&] { return ++asked < 0; }, std::chrono::milliseconds(5)));
    EXPECT_GE(asked, 2);
    EXPECT_TRUE(Until([&] { return true; }, std::chrono::milliseconds(0)));
}

TEST(WaitTest, DispatchUsesTheThreadsDefaultBus)
{
    PrivateBus bus;
    FakeService fans("com.example.Fans", "/fans", {"com.tamm.bmc.Thermal.FanReporting"});
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_default_system(&raw), 0);
    int signals = 0;
    const auto count = [](sd_bus_message*, void* counter, sd_bus_error*)
    {
        ++*static_cast<int*>(counter);
        return 0;
    };
    ASSERT_GE(sd_bus_add_match(raw, nullptr, "type='signal',path='/fans'", count, &signals), 0);
    fans->Set("fanCount", 1);
    fans->Set("fanCount", 2);
    EXPECT_TRUE(Dispatch([&] { return signals == 2; }));
    EXPECT_TRUE(DispatchPending());
    EXPECT_EQ(signals, 2);
    EXPECT_FALSE(Dispatch([&] { return signals == 3; }, std::chrono::milliseconds(5)));
    fans->Set("fanCount", 3);
    const Waited waited = Dispatch([&] { return signals == 4; }, std::chrono::milliseconds(5));
    EXPECT_FALSE(waited);
    EXPECT_THAT(waited.Instead(), HasSubstr(R"(PropertiesChanged sa{sv}as "com.tamm.bmc.Thermal.)"
                                            R"(FanReporting" 1 "fanCount" y 3 0)"));
    EXPECT_THAT(testing::AssertionResult(waited).message(), HasSubstr(waited.Instead()));
    bus.Kill();
    EXPECT_FALSE(Dispatch([&] { return signals == 4; })) << "returns when the bus has gone";
    EXPECT_FALSE(DispatchPending());
    sd_bus_unref(raw);
}

TEST(WaitTest, TimersRunMeanwhile)
{
    const PrivateBus bus;
    sd_bus* raw = nullptr;
    sd_event* loop = nullptr;
    ASSERT_GE(sd_bus_default_system(&raw), 0);
    ASSERT_GE(sd_event_new(&loop), 0);
    ASSERT_GE(sd_bus_attach_event(raw, loop, SD_EVENT_PRIORITY_NORMAL), 0);
    bool fired = false;
    const auto fire = [](sd_event_source*, uint64_t, void* flag)
    {
        *static_cast<bool*>(flag) = true;
        return 0;
    };
    ASSERT_GE(sd_event_add_time_relative(loop, nullptr, CLOCK_MONOTONIC, 1000, 1, fire, &fired), 0);
    EXPECT_TRUE(Dispatch([&] { return fired; }));
    sd_bus_detach_event(raw);
    sd_event_unref(loop);
    sd_bus_unref(raw);

    boost::asio::io_context io;
    boost::asio::steady_timer timer(io, std::chrono::milliseconds(1));
    timer.async_wait([&](const auto& error) { fired = !error && !std::exchange(fired, false); });
    fired = false;
    EXPECT_TRUE(Dispatch(io, [&] { return fired; }));
}

// A bus and a service with static storage: exit() in a child hung, or ended the parent's daemon.
TEST(ForkTest, ExitOfAChildHarmsNoStaticObject)
{
    struct Static
    {
        PrivateBus bus;
        Monitor monitor;
        FakeService fans{"com.example.Fans", "/fans", {"com.tamm.bmc.Thermal.FanReporting"}};
    };
    auto all = std::make_unique<Static>();
    EXPECT_EQ(test::ExitOfChild(
                  [&]
                  {
                      all.reset();
                      return 0;
                  }),
              0);
    EXPECT_TRUE(all->bus.Running());
    EXPECT_TRUE(std::filesystem::exists(all->bus.Folder()));
    all->fans->Set("fanCount", 1);
    EXPECT_EQ(all->monitor.Signals("PropertiesChanged").size(), 1U);
}

TEST(PrivateBusTest, TheFolderOfACrashedTestIsRemoved)
{
    const PrivateBus own;
    const std::string note = own.Folder() / "note";
    EXPECT_GE(test::ExitOfChild(
                  [&]
                  {
                      const PrivateBus bus;
                      std::ofstream(note) << bus.Folder().string() << std::flush;
                      raise(SIGKILL);
                      return 0;
                  }),
              1000);
    std::string left;
    std::getline(std::ifstream(note), left);
    ASSERT_TRUE(std::filesystem::exists(left)) << left;
    const PrivateBus next;
    EXPECT_FALSE(std::filesystem::exists(left)) << left;
    EXPECT_TRUE(std::filesystem::exists(own.Folder()));
}

} // namespace
