// The program as its user starts and ends it.

#include "fixture.hpp"

#include <bmcbus/testing/monitor.hpp>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>

namespace test
{
namespace
{

using bmcbus::testing::Process;

// The program with these options; `variables` ("NAME=value") are added to the environment.
Process Started(const std::vector<std::string>& options,
                const std::vector<std::string>& variables = {})
{
    std::vector<std::string> command = {BMCBUS_BUILT_SIMULATOR};
    command.insert(command.end(), options.begin(), options.end());
    return Process(command, variables);
}

TEST(SimulatorProgram, SignalsEndItWithStatusZero)
{
    const bmcbus::testing::PrivateBus bus;
    for (const int number : {SIGINT, SIGTERM})
    {
        Process simulator = Started({"--period", "5"});
        ASSERT_TRUE(simulator.Says("bmcbus-simulator: ready")) << simulator.Output();
        simulator.Signal(number);
        EXPECT_EQ(simulator.Wait(), 0) << simulator.Output();
        EXPECT_EQ(simulator.Output(), "bmcbus-simulator: ready\n");
    }
}

TEST(SimulatorProgram, RefusesWhatItCannotDo)
{
    const bmcbus::testing::PrivateBus bus;
    for (const char* option : {"--period=-1", "--period=fast", "--seed=x", "--colour", "more"})
    {
        Process simulator = Started({option});
        EXPECT_GT(simulator.Wait(), 0) << option;
        EXPECT_FALSE(simulator.Output().empty()) << option;
    }
    Process help = Started({"--help"});
    EXPECT_EQ(help.Wait(), 0);
    EXPECT_NE(help.Output().find("--no-mapper"), std::string::npos);
}

TEST(SimulatorProgram, SaysWhyItCannotStart)
{
    const bmcbus::testing::PrivateBus bus;
    const bmcbus::testing::Service taken({"com.tamm.bmc.Power"});
    Process simulator = Started({});
    EXPECT_EQ(simulator.Wait(), 1);
    EXPECT_NE(simulator.Output().find("com.tamm.bmc.Power"), std::string::npos)
        << simulator.Output();
}

// What signals said of one object: interface, property, value.
using Told = std::map<std::string, std::map<std::string, Value>>;

std::map<std::string, Told> ToldBySignals(bmcbus::testing::Monitor& monitor)
{
    std::map<std::string, Told> objects;
    for (const auto& signal : monitor.Signals("InterfacesAdded"))
    {
        for (const auto& [interface, values] : signal.values.at(1).Get<Told>())
        {
            objects[signal.sender + signal.values.at(0).Get<Path>().text][interface] = values;
        }
    }
    for (const auto& signal : monitor.Signals("PropertiesChanged"))
    {
        Told& told = objects[signal.sender + signal.path];
        for (const auto& [name, value] : signal.values.at(1).Get<std::map<std::string, Value>>())
        {
            told[signal.values.at(0).Get<std::string>()].insert_or_assign(name, value);
        }
    }
    return objects;
}

// A client that was there before misses nothing.
TEST(SimulatorProgram, AnnouncesAllValuesWhenItStarts)
{
    const bmcbus::testing::PrivateBus bus;
    bmcbus::testing::Monitor monitor;
    const bmcbus::testing::Simulator simulator;
    const Client client;
    size_t compared = 0;
    for (const auto& [object, told] : ToldBySignals(monitor))
    {
        const size_t path = object.find('/');
        for (const auto& [interface, values] : told)
        {
            const auto answer = client.Properties(object.substr(0, path), object.substr(path),
                                                  "GetAll", {interface});
            ASSERT_EQ(answer.error, "") << object;
            const auto held = answer.values.at(0).Get<std::map<std::string, Value>>();
            EXPECT_EQ(values, held) << object << " " << interface;
            compared += held.size();
        }
    }
    EXPECT_GT(compared, 100U);
}

TEST(SimulatorProgram, EndsWithTheBus)
{
    bmcbus::testing::PrivateBus bus;
    Process simulator = Started({"--period", "0"});
    ASSERT_TRUE(simulator.Says("bmcbus-simulator: ready")) << simulator.Output();
    bus.Kill();
    EXPECT_EQ(simulator.Wait(), 1);
    EXPECT_EQ(simulator.Output(), "bmcbus-simulator: ready\nbmcbus-simulator: the bus is gone\n");
}

TEST(SimulatorProgram, TellsItsServiceManagerThatItIsReady)
{
    const bmcbus::testing::PrivateBus bus;
    const std::string path = bus.Folder() / "notify";
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ASSERT_GE(manager, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    path.copy(address.sun_path, path.size()); // a zero follows, as in all of it
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    Process simulator = Started({"--period", "0"}, {"NOTIFY_SOCKET=" + path});
    char told[64] = {};
    EXPECT_TRUE(
        bmcbus::testing::Until([&] { return recv(manager, told, sizeof(told) - 1, 0) > 0; }));
    EXPECT_STREQ(told, "READY=1");
    close(manager);
}

TEST(SimulatorProgram, IsPartOfTheKit)
{
    const bmcbus::testing::PrivateBus bus;
    bmcbus::testing::Simulator bmc;
    EXPECT_NO_THROW(bmc.Step());
    EXPECT_NO_THROW(bmc.Control("AnswerLate", {thermal, "Get", uint32_t{1}}));
    const std::vector<std::string> interfaces = {fanReporting};
    EXPECT_NO_THROW(bmc.Control("AnnounceRemoved", {Path{chassisFans}, interfaces}));
    EXPECT_NO_THROW(bmc.Control("AnnounceAdded", {Path{chassisFans}}));
    EXPECT_THROW(bmc.Control("AnswerLate", {thermal, "Get", "1"}), std::runtime_error);
    EXPECT_THROW(bmc.Control("CrashService", {"com.example.Unknown"}), std::runtime_error);
    EXPECT_EQ(bmc.Stop(), 0);
    EXPECT_THROW(bmc.Step(), std::runtime_error);
    EXPECT_THROW(bmcbus::testing::Simulator({"--colour"}), std::runtime_error);
}

class WithoutMapper : public SimulatorTest
{
  protected:
    WithoutMapper() : SimulatorTest({"--period", "0", "--no-mapper"}) {}
};

TEST_F(WithoutMapper, AnotherOneMayServe)
{
    EXPECT_EQ(Ask("GetObject", {"/", std::vector<std::string>{}}).error,
              "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_EQ(Read(thermal, chassisFans, fanReporting, "fanCount"), "v y 6");
}

// Everything a user sees of one run: all values of the power object after each of some steps.
std::string Story(const std::vector<std::string>& arguments)
{
    const bmcbus::testing::PrivateBus bus;
    const bmcbus::testing::Simulator simulator(arguments);
    const Client client;
    std::string story;
    for (int i = 0; i < 5; ++i)
    {
        simulator.Step();
        story += client
                     .Properties("com.tamm.bmc.Power", "/com/tamm/bmc/power/system", "GetAll",
                                 {"com.tamm.bmc.power.PowerReporting"})
                     .Text();
    }
    return story;
}

TEST(SimulatorProgram, TheSameSeedTellsTheSameStory)
{
    const std::string first = Story({"--period", "0", "--seed", "7"});
    EXPECT_NE(first.find("SystemInputPower"), std::string::npos);
    EXPECT_EQ(first, Story({"--period", "0", "--seed", "7"}));
    EXPECT_NE(first, Story({"--period", "0", "--seed", "8"}));
}

} // namespace
} // namespace test
