// After each test of a program that this is linked into, what the test opened and started must have
// gone: descriptors and threads. A match that is left counts, too: it keeps its connection open.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

namespace
{

namespace fs = std::filesystem;

using Held = std::multimap<std::string, std::string>; // what it is, its number

Held Descriptors()
{
    Held held;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
    {
        std::error_code gone; // the one that lists them
        const std::string target = fs::read_symlink(entry.path(), gone);
        if (!gone && !target.starts_with("/proc/"))
        {
            held.emplace("a descriptor of " + target.substr(0, target.find('[')), target);
        }
    }
    return held;
}

size_t Threads()
{
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/task"), {}));
}

std::string Difference(const Held& before, const Held& after)
{
    std::string text;
    for (auto kind = after.begin(); kind != after.end(); kind = after.upper_bound(kind->first))
    {
        const size_t more = after.count(kind->first);
        if (more > before.count(kind->first))
        {
            text += std::to_string(more - before.count(kind->first)) + " x " + kind->first + "\n";
        }
    }
    return text;
}

class NothingLeft : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        descriptors = Descriptors();
        threads = Threads();
    }

    // The fixture is gone by now. Threads that end and peers that hang up may need a moment.
    void OnTestEnd(const testing::TestInfo& test) override
    {
        if (test.result()->Skipped())
        {
            return;
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::string left = Left();
        while (!left.empty() && std::chrono::steady_clock::now() < end)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            left = Left();
        }
        EXPECT_EQ(left, "") << "the test left this behind";
    }

    std::string Left() const
    {
        const size_t now = Threads();
        const std::string extra =
            now > threads ? std::to_string(now - threads) + " x a thread\n" : "";
        return Difference(descriptors, Descriptors()) + extra;
    }

    Held descriptors;
    size_t threads = 0;
};

// Listeners can be added only once the framework is set up.
class Add : public testing::Environment
{
    void SetUp() override
    {
        std::thread([] {}).join(); // a sanitizer's own thread comes with the first
        testing::UnitTest::GetInstance()->listeners().Append(new NothingLeft);
    }
};

[[maybe_unused]] const auto* const added = testing::AddGlobalTestEnvironment(new Add);

} // namespace
