#pragma once

/**
 * @file
 * What went over the wire.
 */

#include <bmcbus/testing/value.hpp>
#include <bmcbus/testing/wait.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/** One message as the bus carried it: a plain value, for one thread at a time. */
struct WireMessage
{
    std::string type;          /**< "method_call", "method_return", "error" or "signal" */
    std::string sender;        /**< unique name, or "org.freedesktop.DBus" */
    std::string destination;   /**< as addressed by the sender; empty for broadcast */
    std::string path;          /**< empty for replies */
    std::string interface;     /**< empty for replies */
    std::string member;        /**< empty for replies */
    std::string errorName;     /**< for type "error" */
    uint64_t serial = 0;       /**< the sender's number for the message */
    uint64_t replyTo = 0;      /**< serial of the call that is answered; 0 otherwise */
    bool wantsReply = false;   /**< a method call without the flag "no reply expected" */
    std::vector<Value> values; /**< the body */

    /** Signature and body as busctl prints them: `ss "com.example.Fans" "fanCount"`. */
    std::string Body() const { return TextOf(values); }
    /** The whole message on a line, for comparing and for failure messages. */
    std::string Text() const;
};

/**
 * Records every message on a bus, as `busctl monitor` shows them, on a thread of its own.
 *
 * Left out are what the kit itself sends to keep order: its Ping calls to the bus daemon with their
 * replies, and this object's own traffic.
 *
 * @code
 * Monitor monitor;
 * CodeUnderTest();
 * for (const WireMessage& call : monitor.Calls("GetAll")) ...
 * @endcode
 *
 * **Threads.** Any thread may call any member. What the constructor's return precedes is recorded.
 */
class Monitor
{
  public:
    /** Which messages are of interest. */
    using Filter = std::function<bool(const WireMessage&)>;

    /**
     * Connects and starts to record; blocks until the bus has agreed.
     *
     * @param address  bus address; empty: the system bus as DBUS_SYSTEM_BUS_ADDRESS names it
     *
     * Throws std::system_error when there is no bus or it does not let this user monitor.
     */
    explicit Monitor(const std::string& address = {});
    /** Stops; blocks until the thread has ended. */
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    /**
     * All messages so far in the bus's order. Blocks until everything that the bus had accepted
     * before the call is recorded; throws std::runtime_error when the bus has gone.
     */
    std::vector<WireMessage> Messages();

    /** Those for which @p filter gives true, otherwise like Messages(). */
    std::vector<WireMessage> Messages(const Filter& filter);

    /** The method calls of @p member, otherwise like Messages(). */
    std::vector<WireMessage> Calls(const std::string& member);

    /** The signals of @p member, otherwise like Messages(). */
    std::vector<WireMessage> Signals(const std::string& member);

    /** Waits until @p count messages pass @p filter; false when @p bound has passed. */
    bool WaitFor(const Filter& filter, size_t count = 1,
                 std::chrono::milliseconds bound = patience) const;

    /** Forgets everything that the bus had accepted before the call. */
    void Clear();

  private:
    class Recorder;
    std::unique_ptr<Recorder> recorder;
};

} // namespace bmcbus::testing
