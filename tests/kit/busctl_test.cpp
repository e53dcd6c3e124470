// The kit's services as an engineer with busctl sees them.

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace bmcbus::testing;
using ::testing::HasSubstr;

namespace
{

constexpr const char* name = "com.example.Fans";
constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";
constexpr const char* originInterface = "com.tamm.bmc.debug.dataorigin";

class BusctlTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (Busctl("--version").find("systemd") == std::string::npos)
        {
            GTEST_SKIP() << "no busctl";
        }
    }
    static std::string Busctl(const std::string& arguments)
    {
        Process shell({"sh", "-c", "busctl --no-pager --full --timeout=20 " + arguments});
        shell.Wait();
        return shell.Output();
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

} // namespace
