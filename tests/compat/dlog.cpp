// The stand-in for the platform's debug log.

#include <dlog.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using testing::ElementsAre;
using testing::EndsWith;

// Runs `body` in a child whose standard error is a socket that keeps every write apart, with this
// DLOG_LEVEL; gives what was written. The child's exit code must be 0.
std::vector<std::string> Written(const char* level, const std::function<int()>& body)
{
    int pair[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair), 0);
    const pid_t child = fork();
    if (child == 0)
    {
        alarm(120); // ends a child that hangs
        dup2(pair[1], STDERR_FILENO);
        close(pair[0]);
        close(pair[1]);
        level == nullptr ? unsetenv("DLOG_LEVEL") : setenv("DLOG_LEVEL", level, 1);
        _exit(body());
    }
    close(pair[1]);
    std::vector<std::string> writes;
    std::vector<char> buffer(100000);
    for (ssize_t size = 0; (size = recv(pair[0], buffer.data(), buffer.size(), 0)) > 0;)
    {
        writes.emplace_back(buffer.data(), static_cast<size_t>(size));
    }
    close(pair[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return writes;
}

// The levels of 1 to 9 that are written with this setting.
std::string Levels(const char* setting)
{
    std::string levels;
    for (const std::string& line : Written(setting,
                                           []
                                           {
                                               for (int level = 1; level < 10; ++level)
                                               {
                                                   dlog_printf(level, 300, "%d", level);
                                               }
                                               return 0;
                                           }))
    {
        levels += line.at(line.size() - 2);
    }
    return levels;
}

TEST(Dlog, DropsWhatIsAboveTheThreshold)
{
    EXPECT_EQ(Levels(nullptr), "12");
    EXPECT_EQ(Levels("5"), "12345");
    EXPECT_EQ(Levels("9"), "123456789");
    EXPECT_EQ(Levels("99999999999"), "123456789");
    EXPECT_EQ(Levels("0"), "");
    for (const char* malformed : {"", "x", "5x", "-1"})
    {
        EXPECT_EQ(Levels(malformed), "12") << malformed;
    }
}

TEST(Dlog, WritesEachLineAtOnceAndWhole)
{
    const std::string large(50000, 'l');
    const auto lines =
        Written("2",
                [&]
                {
                    dlog_printf(1, 300, "%s.%d: %s", "file", 7, "text");
                    dlog_printf(2, 127, "newline\n");
                    dlog_printf(2, 127, "%s|", large.c_str());
                    for (size_t size = 900; size < 1100; ++size) // around the size of the buffer
                    {
                        dlog_printf(2, 1, "<%s>", large.substr(0, size).c_str());
                    }
                    return 0;
                });
    ASSERT_EQ(lines.size(), 203U);
    EXPECT_THAT(lines[0],
                testing::ContainsRegex(
                    "^[0-9:]{8}\\.[0-9]{6} \\[[0-9]+\\] <1> \\{300\\} file\\.7: text\n$"));
    EXPECT_THAT(lines[1], EndsWith("<2> {127} newline\n"));
    EXPECT_THAT(lines[2], EndsWith("} " + large + "|\n"));
    for (size_t i = 3; i < lines.size(); ++i)
    {
        EXPECT_THAT(lines[i], EndsWith("} <" + large.substr(0, 897 + i) + ">\n"));
    }
}

// What a stranger puts on the bus may be in a line: it must forge none, and no terminal may obey
// it.
TEST(Dlog, LogInjection)
{
    const auto lines = Written(
        "2",
        []
        {
            dlog_printf(2, 1, "%s", "x]\n20:00:00.0 [1] <1> {300} forged\r\x1b[2J\x7f\t|\n\n");
            dlog_printf(2, 1, "%s",
                        "\xc2\x9b"
                        "2J \xc3\xa4 \xc2\xb5\xc2");
            const std::string many(2000, '\n');
            dlog_printf(2, 1, "<%s>", many.c_str());
            return 0;
        });
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines[0], EndsWith(" x]\\n20:00:00.0 [1] <1> {300} forged\\r\\x1b[2J\\x7f\t|\n"));
    EXPECT_THAT(lines[1], EndsWith(" \\xc2\\x9b"
                                   "2J \xc3\xa4 \xc2\xb5\xc2\n"));
    std::string spelled;
    for (int i = 0; i < 2000; ++i)
    {
        spelled += "\\n";
    }
    EXPECT_THAT(lines[2], EndsWith(" <" + spelled + ">\n"));
}

TEST(Dlog, SigpipeWhenTheReaderHasGone)
{
    const auto failsToWrite = []
    {
        const bool failed = dlog_printf(2, 1, "nobody reads this") < 0 && errno == ENXIO;
        sigset_t pending;
        sigpending(&pending);
        return failed ? sigismember(&pending, SIGPIPE) : -1;
    };
    Written("2",
            [&]
            {
                int ends[2];
                if (pipe(ends) != 0)
                {
                    return 1;
                }
                close(ends[0]);
                dup2(ends[1], STDERR_FILENO);
                errno = ENXIO;
                if (failsToWrite() != 0)
                {
                    return 2;
                }
                // One that the program holds back itself stays.
                sigset_t blocked;
                sigemptyset(&blocked);
                sigaddset(&blocked, SIGPIPE);
                pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
                raise(SIGPIPE);
                return failsToWrite() == 1 ? 0 : 3;
            });
}

TEST(Dlog, LeavesErrnoAloneAndTellsWhatItDid)
{
    const auto lines =
        Written("2",
                []
                {
                    errno = ENXIO;
                    const bool dropped = dlog_printf(3, 1, "dropped") == 0 && errno == ENXIO;
                    const bool written = dlog_printf(2, 1, "written") > 8 && errno == ENXIO;
                    close(STDERR_FILENO);
                    const bool failed = dlog_printf(2, 1, "failed") < 0 && errno == ENXIO;
                    return dropped && written && failed ? 0 : 1;
                });
    EXPECT_THAT(lines, ElementsAre(EndsWith(" written\n")));
}

} // namespace
