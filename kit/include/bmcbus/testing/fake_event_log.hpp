#pragma once

/**
 * @file
 * The event-log daemon of a test.
 */

#include <bmcbus/testing/fake_service.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/** An entry as a client filed it: a plain value, for one thread at a time. */
struct EventLogEntry
{
    uint16_t category = 0;              /**< as a number */
    uint16_t agent = 0;                 /**< who files it, as a number */
    uint16_t severity = 0;              /**< as a number */
    std::string id;                     /**< of the message */
    std::optional<std::string> message; /**< its text, where the client sends one */
    std::optional<std::string> fqdd;    /**< the part of the machine that it concerns */
    std::vector<std::string> arguments; /**< what the message is completed with; any bytes */

    /**
     * The entry in one line of UTF-8:
     * `agent=2 category=1 severity=3 id=[ID1] message=[a message] FQDD=[Fan.1] arg=[ab] arg=[c]`.
     */
    std::string Text() const;
};

/**
 * The entry that a call of the event log's method carries.
 *
 * Throws std::invalid_argument for contents that no client should send. Any thread may call it.
 */
EventLogEntry DecodeEventLogEntry(const Call& call);

/** Bus name and interface of the event log. */
inline constexpr const char* eventLogName = "com.tamm.ovrik.wharfd.wharfd";
/** Object path of the event log. */
inline constexpr const char* eventLogPath = "/com/tamm/ovrik/wharfd/wharfd";
/** The method that files an entry, for FakeService::On(). */
inline constexpr const char* eventLogMethod = "NQRCE_REQ_TYPE_LOG_QZL_EVENT";

/** The event log's interface, anew for each caller; any thread may call it. */
InterfaceDescription EventLogInterface();

/**
 * Adds the event log to a service: it answers 0 for each entry, after @p filed has had it, and
 * refuses what no client should send with "org.freedesktop.DBus.Error.InvalidArgs". @p filed runs
 * on the service's thread; call this where the service's members may be called.
 */
void ServeEventLog(Service& service, const std::function<void(const EventLogEntry&)>& filed);

/**
 * The service "com.tamm.ovrik.wharfd.wharfd" on its own thread with the event log in it; faults and
 * memory are those of FakeService.
 *
 * @code
 * FakeEventLog log;
 * CodeUnderTest();
 * ASSERT_TRUE(log.WaitForEntries(1));
 * EXPECT_EQ(log.Entries().front().message, "Fan 1 failed");
 * log.On(eventLogMethod).ReplyError("com.example.Error.Full");
 * @endcode
 */
class FakeEventLog : public FakeService
{
  public:
    /** Connects as Service does. */
    FakeEventLog();

    /** The entries so far in order, also those that a fault answered. Any thread. */
    std::vector<EventLogEntry> Entries() const;

    /** Waits until there are @p count entries; false when @p bound has passed. Any thread. */
    Waited WaitForEntries(size_t count, std::chrono::milliseconds bound = patience) const;
};

} // namespace bmcbus::testing
