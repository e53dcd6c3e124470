#include <bmcbus/testing/log_recorder.hpp>

#include <dlog.h>
#include <gtest/gtest.h>

using namespace bmcbus::testing;

TEST(LogRecorderTest, LinesAreTakenApart)
{
    ClearLog();
    EXPECT_EQ(dlog_printf(2, 300, "%s.%d.%s: code %d", "a.cpp", 12, "Run", 7), 20);
    dlog_printf(2, 127, "EXCEPTION %s.%d.%s: %s", "b.cpp", 3, "Get", "what");
    dlog_printf(5, 1, "no location %d", 4);
    EXPECT_EQ(CountLog(2, 300, "Run", "code 7"), 1U) << Describe(Log());
    EXPECT_EQ(CountLog(2, 127, "Get", "EXCEPTION what"), 1U) << Describe(Log());
    EXPECT_EQ(CountLog(5, 1, "", "no location 4"), 1U) << Describe(Log());
    EXPECT_EQ(Log(2).size(), 2U);
    ASSERT_EQ(LogOf("%s.%d.%s: code %d").size(), 1U);
    EXPECT_EQ(LogOf("%s.%d.%s: code %d").front().line, 12);

    ClearLog();
    SetLogThreshold(2);
    EXPECT_EQ(dlog_printf(9, 1, "%s.%d.%s: dropped", "a.cpp", 1, "F"), 0);
    SetLogThreshold(1000);
    EXPECT_TRUE(Log().empty());
}
