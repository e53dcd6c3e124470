// What a client finds on the bus: objects, values, signals, methods.

#include "fixture.hpp"

#include <bmcbus/testing/description.hpp>
#include <gmock/gmock.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace test
{
namespace
{

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Names = std::vector<std::string>;
using Owners = std::map<std::string, Names>;

constexpr const char* notFound = "xyz.openbmc_project.Common.Error.ResourceNotFound";
const Names noFilter;

TEST_F(SimulatorTest, MapperFindsServicesAndPaths)
{
    EXPECT_EQ(Ask("GetSubTreePaths", {"/", 0, Names{fanReporting}}).Text(),
              R"(as 2 "/com/tamm/bmc/thermal/fans/chassis" "/com/tamm/bmc/thermal/fans/supplies")");
    EXPECT_EQ(Ask("GetObject", {chassisFans, Names{fanReporting}}).Text(),
              R"(a{sas} 1 "com.tamm.bmc.Thermal" 4 "com.tamm.bmc.Thermal.FanReporting" )"
              R"("org.freedesktop.DBus.Introspectable" "org.freedesktop.DBus.Peer" )"
              R"("org.freedesktop.DBus.Properties")");
    // Nodes without an object, too, and where the object managers are.
    EXPECT_EQ(Ask("GetSubTreePaths", {"/com/tamm/bmc/thermal/", 1, noFilter}).Text(),
              R"(as 3 "/com/tamm/bmc/thermal/fans" "/com/tamm/bmc/thermal/system" )"
              R"("/com/tamm/bmc/thermal/telemetry")");
    EXPECT_EQ(Ask("GetObject", {"/com/tamm", noFilter}).values.at(0).Children().size(), 6U);
    EXPECT_EQ(Ask("GetSubTreePaths", {"/", 0, Names{"org.freedesktop.DBus.ObjectManager"}}).Text(),
              R"(as 5 "/com/tamm/bmc/cpu" "/com/tamm/bmc/memory" "/com/tamm/bmc/power" )"
              R"("/com/tamm/bmc/thermal" "/com/tamm/ovrik/wharfd")");
    EXPECT_EQ(Ask("GetAncestors", {"/com/tamm/ovrik/wharfd/network/eth0", noFilter})
                  .values.at(0)
                  .Children()
                  .size(),
              6U);
    EXPECT_EQ(Ask("GetObject", {"/nowhere", noFilter}).error, notFound);
    EXPECT_EQ(Ask("GetObject", {chassisFans, Names{"com.tamm.bmc.Cpu.cpu"}}).error, notFound);
    EXPECT_EQ(Ask("GetSubTree", {"/nowhere", 0, noFilter}).error, notFound);
}

// Where the descriptions say that objects are found.
TEST_F(SimulatorTest, ServesThePlacesOfTheDescriptions)
{
    const std::regex place(R"re(com\.tamm\.bmcbus\.At" value="(\S+) ([^"]+)")re");
    std::istringstream files(BMCBUS_DESCRIPTIONS);
    for (std::string file; files >> file;)
    {
        std::ifstream stream(file);
        const std::string text(std::istreambuf_iterator<char>(stream), {});
        const std::string interface = std::filesystem::path(file).stem().string();
        size_t places = 0;
        for (std::sregex_iterator at(text.begin(), text.end(), place), end; at != end;
             ++at, ++places)
        {
            const std::string owners = Ask("GetObject", {(*at)[2].str(), Names{interface}}).Text();
            EXPECT_THAT(owners, HasSubstr('"' + (*at)[1].str() + "\" ")) << (*at)[2];
        }
        EXPECT_GT(places, 0U) << file;
    }
}

TEST_F(SimulatorTest, MapperForgetsAServiceThatLeft)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',path='/com/tamm/bmc/thermal',arg0path='" +
                       std::string(chassisFans) + "'",
                   signals);
    EXPECT_EQ(Control("StopService", {thermal}).error, "");
    EXPECT_EQ(Ask("GetObject", {chassisFans, noFilter}).error, notFound);
    EXPECT_EQ(Read(thermal, chassisFans, fanReporting, "fanCount"),
              "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_EQ(Control("Step").error, "");
    EXPECT_EQ(Control("StartService", {thermal}).error, "");
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 2; }));
    EXPECT_THAT(signals[0], HasSubstr(" InterfacesRemoved "));
    EXPECT_THAT(signals[1], HasSubstr(" InterfacesAdded "));
    EXPECT_EQ(Ask("GetObject", {chassisFans, noFilter}).error, "");
    EXPECT_EQ(Read(thermal, chassisFans, fanReporting, "fanCount"), "v y 6");
}

TEST_F(SimulatorTest, AStepEmitsEverySignalAndTheChangedValues)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',path_namespace='/com/tamm/bmc'", signals);
    ASSERT_EQ(Control("Step").error, "");
    // The debug object comes last.
    ASSERT_TRUE(bmcbus::testing::Dispatch(
        client,
        [&] { return !signals.empty() && signals.back().starts_with("/com/tamm/bmc/debug "); }));
    // Each member with its signature.
    for (const char* expected : {
             "/com/tamm/bmc/cpu/cpu0 PowerThermalCpuTelemetry "
             "ayayauayauayauayauayauayauayauayauayauayauayauayau ",
             "/com/tamm/bmc/debug debugsignal s \"step ",
             "/com/tamm/bmc/cpu/telemetry CpuTelemetryPkg1Change "
             "ayauauauauauauauauauauauauauauauauauauauauauauauauauauauauauau ",
             "/com/tamm/bmc/cpu/telemetry SecondSignal y ",
             "/com/tamm/bmc/thermal/fans/chassis notifyFanReportingData ya{s(yyyb)} 6 ",
             "/com/tamm/bmc/thermal/telemetry TeleMetricsSignal "
             "tdbbdbbdbbdbbibbibbibbibbdbbdbbdbb ",
             "/com/tamm/bmc/power/system NotifyPwrReportingData "
             "yayaqaqaqaqauauayyayaqaqaqaqauauaydddddddququqqyayadadadadayayayaqayayayyddayyyadadad"
             "ad"
             "adadayasauadadadadadadaddddd ",
             "/com/tamm/bmc/memory/dimm/A1 DIMMPowerTelemetry ddddd ",
         })
    {
        EXPECT_THAT(signals, Contains(StartsWith(expected)));
    }
    EXPECT_THAT(signals, Contains(StartsWith("/com/tamm/bmc/power/system PropertiesChanged "
                                             "sa{sv}as \"com.tamm.bmc.power.PowerReporting\"")));
    // What stays as it is is not announced.
    EXPECT_THAT(signals, Not(Contains(HasSubstr("\"CPUSlotCount\""))));
}

TEST_F(SimulatorTest, AnInterfaceIsPluggedAndUnplugged)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',arg0path='/com/tamm/ovrik/wharfd/network/usb0'", signals);
    for (int step = 0; step < 16; ++step)
    {
        ASSERT_EQ(Control("Step").error, "");
    }
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 2; }));
    EXPECT_THAT(signals[0], StartsWith("/com/tamm/ovrik/wharfd InterfacesAdded "
                                       "oa{sa{sv}} \"/com/tamm/ovrik/wharfd/network/usb0\" 1 "
                                       "\"com.tamm.ovrik.wharfd.OSLogicalNetworkInterface\" 26"));
    EXPECT_EQ(signals[1], "/com/tamm/ovrik/wharfd InterfacesRemoved oas "
                          "\"/com/tamm/ovrik/wharfd/network/usb0\" 1 "
                          "\"com.tamm.ovrik.wharfd.OSLogicalNetworkInterface\"");
}

TEST_F(SimulatorTest, MethodsActOnTheMachine)
{
    const auto call =
        [&](const std::string& where, const char* method, const std::vector<Value>& arguments)
    {
        const std::string service = "com.tamm.bmc." + where.substr(0, where.find('/'));
        std::string path = "/com/tamm/bmc/" + where;
        path[14] = static_cast<char>(std::tolower(path[14]));
        return client.Call(service, path, "", method, arguments).Text();
    };
    std::vector<std::string> signals;
    client.Collect("type='signal',path='/com/tamm/bmc/cpu/cpu1'", signals);
    using Accesses = std::vector<std::tuple<uint8_t, uint8_t, uint32_t, uint32_t, uint32_t>>;
    struct Case
    {
        const char* where;
        const char* method;
        std::vector<Value> arguments;
        const char* answer;
    };
    const std::vector<Case> cases = {
        {"Thermal/fans/chassis", "updateFanPWMData", {"Fan2", uint8_t{77}}, "i 0"},
        {"Thermal/fans/chassis", "updateFanPWMData", {"Fan2", uint8_t{101}}, "i -1"},
        {"Thermal/fans/chassis", "updateFanPWMData", {"Fan99", uint8_t{50}}, "i -1"},
        {"Thermal/system", "GetSystemThermalInformation", {}, "qq 2"},
        {"Cpu/cpu0", "setCpuPL1", {50U}, "y 0"},
        {"Cpu/cpu0", "setMemPL1", {8U}, "y 0"},
        {"Cpu/cpu0", "setSysPL2", {0U}, "y 1"},
        {"Simulator", "Step", {}, ""},
        {"Memory/all", "DimmPowerCmdHandler", {}, "iddddd 0 4 4 0 0 8"},
        {"Memory/all", "getDbusStatus", {}, "i 0"},
        {"Memory/all", "MemoryCmdHandler", {std::vector<uint8_t>{1, 4}}, "i 0"},
        {"Memory/all", "MemoryCmdHandler", {std::vector<uint8_t>{9}}, "i -22"},
        {"Cpu/cpu0", "writeRASCPCIeCfg", {Accesses{{0, 1, 2, 3, 4711}}}, "y 0"},
        {"Cpu/cpu0", "readRASCPCIeCfg", {Accesses{{0, 1, 2, 3, 0}}}, "u 4711"},
        {"Cpu/cpu0", "readRTC", {}, "(ty) 1"},
        {"Debug", "debugmethod", {"hi"}, "s \"hi\""},
        {"Cpu/telemetry", "GetCpuTelemetryData", {uint8_t{1}}, "uuuuuuuuuuuuuuuuuuuuuuuuuuuuuu "},
        {"Cpu/telemetry", "GetCpuTelemetryData", {uint8_t{2}}, "org.freedesktop.DBus.Error.Inval"},
    };
    for (const Case& one : cases)
    {
        EXPECT_THAT(call(one.where, one.method, one.arguments), StartsWith(one.answer))
            << one.where << " " << one.method;
    }
    EXPECT_THAT(Read(thermal, chassisFans, fanReporting, "fanPWMData"), HasSubstr("\"Fan2\" 77 "));
    ASSERT_TRUE(bmcbus::testing::Dispatch(client, [&] { return !signals.empty(); }));
    EXPECT_THAT(signals[0], HasSubstr(" 4 50 205 0 0 ")); // the limit of the first socket
}

TEST_F(SimulatorTest, WrittenValuesStay)
{
    const char* air = "com.tamm.bmc.Thermal.SystemInformation";
    const char* system = "/com/tamm/bmc/thermal/system";
    EXPECT_EQ(Write(thermal, system, air, "ExhaustTemperature", int16_t{-7}), "");
    Control("Step");
    EXPECT_EQ(Read(thermal, system, air, "ExhaustTemperature"), "v n -7");
    EXPECT_EQ(Write(thermal, system, air, "Key", "new"),
              "org.freedesktop.DBus.Error.PropertyReadOnly");
    EXPECT_EQ(Write(thermal, system, air, "SystemAirflow", "text"),
              "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(SimulatorTest, TheInterfaceTableAndItsInterfacesAgree)
{
    const char* port = "com.tamm.ovrik.wharfd.OSLogicalNetworkInterface";
    const char* table = "com.tamm.ovrik.wharfd.OSLogicalNetworkInterfaces";
    const std::string eth0 = std::string(network) + "/eth0";
    EXPECT_EQ(Write(wharfd, eth0, port, "hostName", "renamed"), "");
    const auto readTable = [&]
    {
        return client.Properties(wharfd, network, "Get", {table, "OSLogicalNetworkInterfaces"})
            .values.at(0)
            .Children()
            .front();
    };
    Value rows = readTable();
    EXPECT_THAT(rows.Text(), HasSubstr("\"renamed\""));

    std::vector<Value> fields = rows.Children().front().Children();
    const auto writeTable = [&](size_t field, const Value& value)
    {
        fields[field] = value;
        return Write(wharfd, network, table, "OSLogicalNetworkInterfaces",
                     Value::Array(rows.Signature().substr(1), {Value::Struct(fields)}));
    };
    EXPECT_EQ(writeTable(17, uint32_t{9000}), "");
    EXPECT_EQ(Read(wharfd, eth0, port, "mtuSize"), "v u 9000");
    EXPECT_EQ(writeTable(2, "eth9"), "org.freedesktop.DBus.Error.InvalidArgs");

    // What is read may be written back, also when interfaces have other names, or the same.
    for (const char* renamed : {"/eth1", "/eth0"})
    {
        EXPECT_EQ(Write(wharfd, network + std::string(renamed), port, "ifName", "eth9"), "");
        rows = readTable();
        EXPECT_EQ(Write(wharfd, network, table, "OSLogicalNetworkInterfaces", rows), "");
        EXPECT_EQ(readTable(), rows);
    }
    EXPECT_EQ(Read(wharfd, eth0, port, "mtuSize"), "v u 9000");
    EXPECT_EQ(Read(wharfd, network + std::string("/eth1"), port, "mtuSize"), "v u 1500");
}

class MovingSimulator : public SimulatorTest
{
  protected:
    MovingSimulator() : SimulatorTest({"--period", "10"}) {}
};

TEST_F(MovingSimulator, ValuesMoveByThemselves)
{
    std::vector<std::string> signals;
    client.Collect("type='signal',member='PropertiesChanged',path='/com/tamm/bmc/power/system'",
                   signals);
    EXPECT_TRUE(bmcbus::testing::Dispatch(client, [&] { return signals.size() >= 3; }));
}

} // namespace
} // namespace test
