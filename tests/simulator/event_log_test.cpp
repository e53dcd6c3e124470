// The event log as its clients and its readers see it.

#include "fixture.hpp"

namespace test
{
namespace
{

using Items = std::vector<std::tuple<uint16_t, std::string>>;

class EventLogTest : public SimulatorTest
{
  protected:
    std::string File(const Items& items) const
    {
        return FileValues({uint16_t{1}, 0U, uint16_t{2}, uint16_t{3}, int64_t{0}, "ID1", items});
    }

    std::string FileValues(const std::vector<Value>& values) const
    {
        return client
            .Call(wharfd, "/com/tamm/ovrik/wharfd/wharfd", wharfd, "NQRCE_REQ_TYPE_LOG_QZL_EVENT",
                  values)
            .Text();
    }
};

TEST_F(EventLogTest, PrintsWhatTheEntrySays)
{
    EXPECT_EQ(File({}), "i 0");
    EXPECT_TRUE(simulator.Says("event: agent=2 category=1 severity=3 id=[ID1]\n"));
    EXPECT_EQ(File({{2, "a message"}, {3, "Fan.1"}, {6, "616200630000"}}), "i 0");
    EXPECT_TRUE(simulator.Says("event: agent=2 category=1 severity=3 id=[ID1] message=[a message] "
                               "FQDD=[Fan.1] arg=[ab] arg=[c]\n"));
    EXPECT_EQ(File({{6, "0000"}}), "i 0");
    EXPECT_TRUE(simulator.Says("event: agent=2 category=1 severity=3 id=[ID1] arg=[]\n"));
    EXPECT_EQ(File({{2, "two\nlines"}}), "i 0");
    EXPECT_TRUE(simulator.Says("event: agent=2 category=1 severity=3 id=[ID1] "
                               "message=[two\\x0alines]\n"));
    EXPECT_EQ(File({{2, "\u20AC\\"}, {6, "c3a9e282c3ff0000"}}), "i 0");
    EXPECT_TRUE(simulator.Says("event: agent=2 category=1 severity=3 id=[ID1] "
                               "message=[\u20AC\\x5c] arg=[\u00E9\\xe2\\x82\\xc3\\xff]\n"));
}

TEST_F(EventLogTest, RefusesWhatNoClientShouldSend)
{
    const char* invalid = "org.freedesktop.DBus.Error.InvalidArgs";
    for (const char* block : {"", "00", "6162", "616", "61620063", "6G00", "61AB0000"})
    {
        EXPECT_EQ(File({{6, block}}), invalid) << block;
    }
    EXPECT_EQ(File({{4, "unknown tag"}}), invalid);
    EXPECT_EQ(FileValues({uint16_t{1}, 0U, uint16_t{2}, uint16_t{3}, int64_t{0}, "ID1"}), invalid);
    EXPECT_EQ(FileValues({1U, 0U, uint16_t{2}, uint16_t{3}, int64_t{0}, "ID1", Items{}}), invalid);
}

} // namespace
} // namespace test
