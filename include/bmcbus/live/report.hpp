#pragma once

/**
 * @file
 * What live objects know about themselves.
 */

#include <bmcbus/export.h>
#include <bmcbus/live/state.hpp>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bmcbus
{

/** A moment's account of one live object, set member or live signal. */
struct LiveReport
{
    std::string path;                    ///< of the object
    std::string interface;               ///< of a live signal with its member behind a dot
    LiveState state = LiveState::Absent; ///< what its values are worth
    std::chrono::microseconds since{};   ///< how long it has been in that state
    std::string service;    ///< the bus name that is followed; empty while there is none
    std::string owner;      ///< the unique name behind it; empty while there is none
    std::string error;      ///< name of the last failure; empty after a read that succeeded
    std::string error_text; ///< what it said
    uint32_t reads = 0;     ///< answers to reads, failures among them
    uint32_t signals = 0;   ///< signals of the owner that were applied
    uint32_t strangers = 0; ///< signals of others that were ignored
    uint32_t refused = 0;   ///< values of another type than the description's
    uint32_t missed = 0;    ///< of a live signal: times that signals may have been missed
    std::chrono::microseconds slowest_callback{}; ///< the longest run of one of its callables
};

/** A connection's live objects. */
struct LiveReports
{
    std::vector<LiveReport> objects; ///< in the order of their paths
    size_t rules = 0;                ///< match rules that are installed for them
    uint64_t needless = 0; ///< signals that a rule for many objects brought and nobody follows
    size_t in_flight = 0;  ///< reads that wait for their answers
};

/**
 * An account of all live objects of @p bus, null for the thread's default system bus.
 *
 * On the connection's thread; does not block. Empty without live objects.
 */
BMCBUS_EXPORT LiveReports ReportLive(sd_bus* bus = nullptr);

/**
 * The account as a table for people: a line for each object under a heading, then the totals. On
 * the connection's thread, as above.
 */
BMCBUS_EXPORT std::string ReportLiveTable(sd_bus* bus = nullptr);

} // namespace bmcbus
