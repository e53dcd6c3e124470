#pragma once

/**
 * @file
 * The library's log lines, kept and compared.
 *
 * The library writes through `dlog_printf`; a program that defines it receives the lines instead.
 * Write once, in one source file of the test program, outside every namespace:
 * @code
 * #include <bmcbus/testing/log_recorder.hpp>
 * BMCBUS_TESTING_RECORD_LOG
 * @endcode
 * and then in a test:
 * @code
 * ClearLog();
 * CodeUnderTest();
 * EXPECT_EQ(CountLog(2, 300, "GetObject", "ex: sd_bus_call: ..."), 1u) << Describe(Log());
 * @endcode
 *
 * Any thread may call these functions, also a forked child. None blocks but for a lock that is held
 * briefly. Lines written after a child was forked are recorded in the process that wrote them.
 */

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/** One line that the library wrote. */
struct LogLine
{
    int level = 0;           /**< 1 serious failure, 2 error, 4 misuse, 5 information, 9 trace */
    unsigned int source = 0; /**< 127 generated code, 300 hand-written code */
    std::string format;      /**< as the library passed it */
    std::string file;        /**< its first value */
    int line = 0;            /**< its second value */
    std::string function;    /**< its third value */
    std::string text;        /**< the whole line, formatted, without "file.line.function: " */
};

/** Forgets what was recorded. */
void ClearLog();

/** All lines so far, in order. */
std::vector<LogLine> Log();

/** The lines up to and including @p level. */
std::vector<LogLine> Log(int level);

/** The lines whose format is exactly @p format. */
std::vector<LogLine> LogOf(const std::string& format);

/** How many recorded lines have this level, source, function and text. */
size_t CountLog(int level, unsigned int source, const std::string& function,
                const std::string& text);

/** Lines above @p level are dropped unread, as a sink with a threshold does; none are at first. */
void SetLogThreshold(int level);

/** Readable form for failure messages. */
std::string Describe(const std::vector<LogLine>& lines);

/**
 * Records one line; what BMCBUS_TESTING_RECORD_LOG calls.
 *
 * @param values  belong to @p format and begin with file, line and function
 * @return the length of the formatted line, 0 when it is above the threshold
 */
int RecordLogLine(int level, unsigned int source, const char* format, va_list values);

} // namespace bmcbus::testing

/** Defines the program's `dlog_printf`, which records; see the file's comment. */
#define BMCBUS_TESTING_RECORD_LOG                                                                  \
    extern "C" __attribute__((visibility("default"), format(printf, 3, 4))) int dlog_printf(       \
        int level, unsigned int source, const char* format, ...);                                  \
    extern "C" int dlog_printf(int level, unsigned int source, const char* format, ...)            \
    {                                                                                              \
        va_list values;                                                                            \
        va_start(values, format);                                                                  \
        const int length = bmcbus::testing::RecordLogLine(level, source, format, values);          \
        va_end(values);                                                                            \
        return length;                                                                             \
    }
