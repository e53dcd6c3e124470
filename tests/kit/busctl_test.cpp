// The kit's services as an engineer with busctl sees them.

#include "client.hpp"

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <thread>

using namespace bmcbus::testing;
using test::Client;
using ::testing::HasSubstr;

namespace
{

constexpr const char* name = "com.example.Fans";
constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";
constexpr const char* originInterface = "com.tamm.bmc.debug.dataorigin";

// Output and error output of a command.
std::string Shell(const std::string& command)
{
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> part{};
    while (pipe != nullptr && fgets(part.data(), static_cast<int>(part.size()), pipe) != nullptr)
    {
        output += part.data();
    }
    if (pipe != nullptr)
    {
        pclose(pipe);
    }
    return output;
}

class BusctlTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (Shell("busctl --version").find("systemd") == std::string::npos)
        {
            GTEST_SKIP() << "no busctl";
        }
    }
    static std::string Busctl(const std::string& arguments)
    {
        return Shell("busctl --no-pager --full --timeout=20 " + arguments);
    }
    std::string At(const char* interface) const
    {
        return std::string(name) + " /com/example/fans " + interface + " ";
    }

    PrivateBus bus;
    FakeService fans{name, "/com/example/fans", {fanInterface, originInterface}, {{"fanCount", 4}}};
};

TEST_F(BusctlTest, ServicesCanBeExploredReadAndWritten)
{
    EXPECT_THAT(Busctl("tree --list com.example.Fans"), HasSubstr("/com/example/fans\n"));
    const std::string members = Busctl("introspect com.example.Fans /com/example/fans");
    EXPECT_THAT(members, HasSubstr(".fanCount"));
    EXPECT_THAT(members, HasSubstr(".notifyFanReportingData"));
    EXPECT_THAT(members, HasSubstr(".PropertiesChanged"));
    EXPECT_EQ(Busctl("get-property " + At(fanInterface) + "fanCount fanPWMData"),
              "y 4\na{s(yyyb)} 0\n");
    EXPECT_EQ(Busctl("set-property " + At(originInterface) + "debugproperty s new"), "");
    EXPECT_EQ(fans->Get("debugproperty"), Value("new"));
    EXPECT_THAT(Busctl("set-property " + At(fanInterface) + "fanCount y 1"),
                HasSubstr("Property 'fanCount' is read-only."));
    EXPECT_EQ(Busctl("call " + At(fanInterface) + "updateFanPWMData sy fan1 50"), "i 0\n");
    EXPECT_EQ(fans.Calls("updateFanPWMData").front().Arguments(), R"(sy "fan1" 50)");
}

TEST_F(BusctlTest, TextOfValuesIsThatOfBusctl)
{
    const std::vector<Value> values = {
        Value("quote \" and \\"),
        Value(1.5),
        Value(-1),
        Value(1e30),
        Value(0.1),
        Value(std::map<std::string, std::vector<bool>>{{"a", {true, false}}, {"b", {}}}),
        Value(std::tuple<Value, Path, TypeSignature>{std::vector<uint8_t>{1, 255}, {"/p"}, {"as"}}),
        AsPropertyMap({{"nested", Value::Variant(uint64_t{1} << 60)}})};
    for (const Value& value : values)
    {
        fans.On("updateFanPWMData").Reply({value});
        EXPECT_EQ(Busctl("call " + At(fanInterface) + "updateFanPWMData sy f 1"),
                  value.Text() + "\n");
    }
}

} // namespace
