#pragma once

// Support for tests of code that blocks: nothing here may hang for ever.

#include "in_child.hpp"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>

namespace test
{

// A test that gets stuck is ended by SIGALRM. Children of fork() inherit no alarm and set their
// own.
class Bounded : public testing::Test
{
  protected:
    void SetUp() override { alarm(boundSeconds); }
    void TearDown() override { alarm(0); }
};

// Waits until `condition` holds; false when it did not within the bound.
inline bool Eventually(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(boundSeconds / 2);
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
        {
            return false;
        }
        sched_yield();
    }
    return true;
}

// Runs `body` in a child made by `fork` and tells whether it returned true there; says how the
// child ended otherwise.
inline bool InChild(const std::function<bool()>& body, pid_t (*makeChild)() = fork)
{
    const int result = ExitOfChild([&] { return body() ? 0 : 1; }, makeChild);
    if (result != 0)
    {
        std::fprintf(stderr, "a child of %d ended with %d\n", getpid(), result);
    }
    return result == 0;
}

} // namespace test

// Runs the statements in a program started anew, for state that is set up once per process.
#define IN_FRESH_PROCESS(...)                                                                      \
    GTEST_FLAG_SET(death_test_style, "threadsafe");                                                \
    EXPECT_EXIT(                                                                                   \
        {                                                                                          \
            alarm(test::boundSeconds);                                                             \
            __VA_ARGS__;                                                                           \
            fflush(stdout);                                                                        \
            _exit(testing::Test::HasFailure() ? 1 : 0);                                            \
        },                                                                                         \
        testing::ExitedWithCode(0), "")
