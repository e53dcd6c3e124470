// The timers, with a clock that the test sets.

#include "log_recorder.hpp"
#include "scoped_timer_c.h"

#include <dlfcn.h>
#include <scoped_timer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

using testing::ElementsAre;
using testing::IsNull;
using testing::NotNull;

namespace
{

// What the library's clock shows next; while empty, the real one.
std::deque<timespec> clockReadings;
size_t readings = 0;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
constexpr bool countsAllocations = false; // the sanitizers' own allocator must stay in place
#else
constexpr bool countsAllocations = true;
#endif
size_t allocations = 0;
bool memoryIsOut = false;

} // namespace

extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept
{
    static const auto real =
        reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, "clock_gettime"));
    if (clockReadings.empty())
    {
        return real(id, now);
    }
    ++readings;
    if (id != CLOCK_MONOTONIC)
    {
        return EINVAL;
    }
    *now = clockReadings.front();
    clockReadings.pop_front();
    return 0;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
extern "C" void* calloc(size_t count, size_t size) noexcept
{
    // Read anew, or the compiler makes the two steps a call of this function.
    static void* (*volatile allocate)(size_t) = std::malloc;
    ++allocations;
    void* const memory = memoryIsOut ? nullptr : allocate(count * size);
    return memory == nullptr ? nullptr : std::memset(memory, 0, count * size);
}
#endif

namespace
{

class ScopedTimer : public testing::Test
{
  protected:
    ScopedTimer()
    {
        test::ClearLog();
        readings = 0;
    }
    ~ScopedTimer() override { clockReadings.clear(); }

    // The next measurement takes this long.
    static void Takes(long usec)
    {
        const long end = 999'999 + usec;
        clockReadings = {{7, 999'999'000}, {7 + end / 1'000'000, end % 1'000'000 * 1'000}};
    }
};

std::vector<std::string> Lines()
{
    std::vector<std::string> lines;
    for (const test::LogLine& line : test::Log())
    {
        lines.push_back(std::to_string(line.level) + " " + std::to_string(line.source) + " " +
                        line.file + "." + std::to_string(line.line) + "." + line.function + ": " +
                        line.text);
    }
    return lines;
}

TEST_F(ScopedTimer, RecordsThePlaceAndTheTime)
{
    clockReadings = {{1, 999'999'999}, {2, 1'000}};
    ScopedTimerCInfo* info = ScopedTimerCInfoBuild(-5, "src/a/b", 3, "f");
    ASSERT_THAT(info, NotNull());
    EXPECT_STREQ(info->file, "b");
    EXPECT_EQ(info->line, 3);
    EXPECT_STREQ(info->function, "f");
    EXPECT_EQ(info->limit_usec, -5);
    EXPECT_EQ(info->source, 0U);
    EXPECT_EQ(info->start.tv_nsec, 999'999'999);
    EXPECT_EQ(info->end.tv_sec, 0);
    EXPECT_EQ(info->usec, 0);
    ScopedTimerCDoEndCalculations(info);
    EXPECT_EQ(info->end.tv_sec, 2);
    EXPECT_EQ(info->usec, 1);
    EXPECT_EQ(readings, 2U);
    ScopedTimerCInfoRelease(&info);
    EXPECT_THAT(info, IsNull());
    EXPECT_TRUE(test::Log().empty());
}

TEST_F(ScopedTimer, LabelsAFileByWhatFollowsItsLastSlash)
{
    for (const auto& [file, label] : std::initializer_list<std::pair<const char*, const char*>>{
             {"b", "b"}, {"/b", "b"}, {"src/", ""}, {"", ""}})
    {
        ScopedTimerCInfo* info = ScopedTimerCInfoBuild(0, file, 1, "f");
        EXPECT_STREQ(info->file, label);
        ScopedTimerCInfoRelease(&info);
    }
}

TEST_F(ScopedTimer, ShowsTimesThatALongDoesNotHold)
{
    clockReadings = {{1, 0}, {1'000'000, 0}};
    ScopedTimerCInfo* info = ScopedTimerCLogInfoBuild(99'999'999'999, 1, "f.c", 1, "f");
    ScopedTimerCLogInfoRelease(&info);
    const std::string usec = "usec=999999000000";
    EXPECT_THAT(Lines(), ElementsAre("9 1 f.c.1.f: ScopedTimerCLog start\n",
                                     "9 1 f.c.1.f: ScopedTimerCLog end, " + usec + "\n",
                                     "1 1 f.c.1.f: ScopedTimerCLog end, over limit, " + usec +
                                         " limit_usec=99999999999\n"));
    const std::string conversion = sizeof(long) > 4 ? "%ld" : "%lld";
    EXPECT_EQ(test::Log().at(1).format, "%s.%d.%s: ScopedTimerCLog end, usec=" + conversion + "\n");
}

TEST_F(ScopedTimer, LogsAtTheEndOfAScopeInC)
{
    Takes(250);
    EXPECT_EQ(TimedWithLog(249, 4711), 12);
    EXPECT_THAT(Lines(), ElementsAre("9 4711 b.c.12.TimedWithLog: ScopedTimerCLog start\n",
                                     "9 4711 b.c.12.TimedWithLog: ScopedTimerCLog end, usec=250\n",
                                     "1 4711 b.c.12.TimedWithLog: ScopedTimerCLog end, over "
                                     "limit, usec=250 limit_usec=249\n"));
    EXPECT_EQ(readings, 2U);
}

TEST_F(ScopedTimer, IsNotOverALimitThatIsReached)
{
    Takes(250);
    TimedWithLog(250, 1);
    EXPECT_EQ(test::Log().size(), 2U);
    EXPECT_TRUE(test::Log(1).empty());
}

TEST_F(ScopedTimer, PrintsToBothStreams)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Takes(1'000'001);
    EXPECT_EQ(TimedWithPrint(0), 34);
    Takes(5);
    TimedWithPrint(5);
    const std::string place = "b.c.34.TimedWithPrint: ScopedTimerCPrint ";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), place + "start\n" + place +
                                                          "end, usec=1000001\n" + place +
                                                          "start\n" + place + "end, usec=5\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              place + "end, over limit, usec=1000001 limit_usec=0\n");
    EXPECT_TRUE(test::Log().empty());
}

TEST_F(ScopedTimer, TimesAScopeOfCpp)
{
    testing::internal::CaptureStdout();
    int line = 0;
    {
        Takes(1);
        line = __LINE__ + 1;
        const auto logged = bmcbus::ScopedTimer::Log(std::chrono::seconds(1), 8);
    }
    {
        Takes(2);
        const auto printed = bmcbus::ScopedTimer::Print(std::chrono::seconds(1));
    }
    const std::string place = "scoped_timer.cpp." + std::to_string(line) + ".TestBody: ";
    EXPECT_THAT(Lines(), ElementsAre("9 8 " + place + "ScopedTimerCLog start\n",
                                     "9 8 " + place + "ScopedTimerCLog end, usec=1\n"));
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::EndsWith(".TestBody: ScopedTimerCPrint end, usec=2\n"));
}

TEST_F(ScopedTimer, IgnoresHandlesThatAreNull)
{
    ScopedTimerCInfo* none = nullptr;
    for (const auto release :
         {ScopedTimerCInfoRelease, ScopedTimerCPrintInfoRelease, ScopedTimerCLogInfoRelease})
    {
        release(nullptr);
        release(&none);
        EXPECT_THAT(none, IsNull());
    }
    EXPECT_TRUE(test::Log().empty());
}

TEST_F(ScopedTimer, AllocatesOnceAndGoesWithoutWhenThereIsNoMemory)
{
    if (!countsAllocations)
    {
        GTEST_SKIP() << "the allocator cannot be replaced in this build";
    }
    testing::internal::CaptureStdout();
    allocations = 0;
    ScopedTimerCInfo* info = ScopedTimerCInfoBuild(0, "f", 1, "f");
    const size_t needed = allocations;
    ScopedTimerCInfoRelease(&info);
    EXPECT_EQ(needed, 1U);

    memoryIsOut = true;
    info = ScopedTimerCInfoBuild(0, "f", 1, "f");
    ScopedTimerCInfo* printed = ScopedTimerCPrintInfoBuild(0, "f", 1, "f");
    ScopedTimerCInfo* logged = ScopedTimerCLogInfoBuild(0, 1, "f", 1, "f");
    {
        const auto scope = bmcbus::ScopedTimer::Log(std::chrono::seconds(0), 1);
    }
    memoryIsOut = false;
    EXPECT_THAT(info, IsNull());
    EXPECT_THAT(printed, IsNull());
    EXPECT_THAT(logged, IsNull());
    EXPECT_TRUE(test::Log().empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
