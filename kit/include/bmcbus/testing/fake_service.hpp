#pragma once

/**
 * @file
 * A service for tests: answers rightly until told otherwise, and remembers what it was asked.
 *
 * @code
 * TEST(Fans, SurvivesAWrongType)
 * {
 *     PrivateBus bus;
 *     FakeService fans("com.example.Fans", "/fans", {"com.tamm.bmc.Thermal.FanReporting"});
 *     fans->Set("fanCount", 4);
 *     fans.On("GetAll").Once().Reply({"not a dictionary"});
 *     CodeUnderTest();
 *     EXPECT_TRUE(fans.WaitForCalls("GetAll"));
 *     EXPECT_EQ(fans.Calls("GetAll").front().Arguments(),
 *               R"(s "com.tamm.bmc.Thermal.FanReporting")");
 * }
 * @endcode
 */

#include <bmcbus/testing/faults.hpp>
#include <bmcbus/testing/service.hpp>
#include <bmcbus/testing/wait.hpp>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace bmcbus::testing
{

class FakeService;

/** The first half of a sentence such as `fans.On("GetAll").Once().NoReply()`. Any thread. */
class FaultRule
{
  public:
    /** Only calls of the object at @p path are hit: On("GetAll").At("/fans/1").Hold(). */
    FaultRule& At(const std::string& path);
    /** Only the next call is hit. */
    FaultRule& Once();
    /** Only the next @p count calls are hit. */
    FaultRule& Times(size_t count);

    /**
     * An error reply.
     *
     * Throws std::invalid_argument for a @p name that is no error name ("Broken" is none, it takes
     * two elements at least) and for @p text that is not UTF-8 or holds a zero byte.
     */
    void ReplyError(const std::string& name, const std::string& text = "as the test wants it");
    /**
     * A reply with exactly these values, whatever their number and types. Values that no message
     * can carry, such as text that is not UTF-8, become the error
     * "org.freedesktop.DBus.Error.Failed" that names them.
     */
    void Reply(std::vector<Value> values);
    /** No reply, ever. */
    void NoReply();
    /** The right reply, but only when FakeService::Release() is called. */
    void Hold();
    /** The right reply after @p time. For experiments by hand; tests are better off with Hold(). */
    void Delay(std::chrono::milliseconds time);
    /** The connection ends at once, the call unanswered; FakeService::Start() brings it back. */
    void Crash();

  private:
    friend class FakeService;
    FaultRule(FakeService& owner, std::string member, std::string argument);
    void Install(Faults::Kind kind);

    FakeService& service;
    Faults::Rule rule;
};

/**
 * A Service on its own thread with faults and a memory. Any thread may call any member, except the
 * constructor and destructor, which follow those of Service.
 */
class FakeService : public Service
{
  public:
    /** A service with one object, which operator->() gives. See Service for failures. */
    FakeService(const std::string& name, const std::string& path,
                const std::vector<std::string>& interfaces, const NamedValues& values = {});

    /** A service without objects. */
    explicit FakeService(std::vector<std::string> wellKnown = {});

    ~FakeService();

    /**
     * The object given to the constructor, or the first one that was added afterwards. Throws
     * std::invalid_argument when there is none, or when it was removed.
     */
    Object* operator->();

    /**
     * Which calls are answered wrongly; to be completed by what happens to them.
     *
     * Completing it throws std::invalid_argument when no object of the service has the method.
     *
     * @param member    method name, also "Get", "Set", "GetAll"; "*" for all
     * @param argument  only calls with this text as one of their arguments: On("Get", "fanCount")
     */
    FaultRule On(const std::string& member, const std::string& argument = {});

    /** Answers rightly again: forgets the rules for @p member, all of them when it is empty. */
    void Heal(const std::string& member = {});

    /** Waits until @p count calls are on hold; false when @p bound has passed. */
    bool WaitForHeld(size_t count = 1, std::chrono::milliseconds bound = patience);

    /** Answers all calls on hold, in their order, with the values of this moment. */
    void Release();

    /** Every method call so far in order, except Peer's. */
    std::vector<Call> Calls() const;

    /** The calls of @p member. */
    std::vector<Call> Calls(const std::string& member) const;

    /**
     * Waits until @p member was called @p count times; false when @p bound has passed, and then it
     * tells the last calls that came.
     */
    Waited WaitForCalls(const std::string& member, size_t count = 1,
                        std::chrono::milliseconds bound = patience) const;

    /** Forgets the calls so far. */
    void ClearCalls();

  private:
    friend class FaultRule;

    Faults faults;
    mutable std::mutex mutex;
    std::vector<Call> calls;
};

} // namespace bmcbus::testing
