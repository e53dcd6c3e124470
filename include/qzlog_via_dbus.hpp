#pragma once

/**
 * @file
 * Files entries in the controller's event log, by asking the `wharfd` daemon to do it.
 *
 * Each function sends one method call on the connection in @p bus, which must belong to the calling
 * thread, and **waits** for the daemon's answer, at most for the connection's method-call timeout.
 * The entry is filed when the function returns, or the diagnostic log says why not; the caller gets
 * no result, and no `std::exception` is thrown.
 *
 * What becomes of the request:
 *
 * - Level 5, `method_status=%d`: the daemon's answer; what it means is the daemon's business.
 * - Level 1, `reply is an error`: the daemon answered with an error.
 * - Level 1, `exception: %s`: no answer (not sent, no such service, refused by the bus, no reply in
 *   time, connection lost), or not the answer that was expected.
 *
 * sd-bus reports both kinds of error alike. An error counts as the bus's own by its name and, where
 * services use that name too, by the text that dbus-daemon and dbus-broker give it; and as a
 * timeout when the time had run out. Every other error is the daemon's.
 *
 * Identifier, message and FQDD must be UTF-8 without zero bytes; with any other text nothing is
 * sent, and the `exception` line tells. Arguments may hold any bytes: they travel encoded.
 *
 * Messages that arrive during the wait are queued on the connection: see `object_mapper.hpp` for
 * what loops other than sd-event must do then. Threads may call at once on connections of their
 * own. In a forked child an inherited connection ends in the `exception` line.
 */

#include <bmcbus/export.h>
#include <bmcbus/sdbusplus.hpp>

#include <string>
#include <vector>

/** The controller's event log. */
namespace QZLogViaDbus
{

/**
 * Files one entry.
 *
 * @param bus        connection to send on
 * @param agentID    identifies the reporting agent
 * @param category   entry category
 * @param severity   entry severity
 * @param messageID  message identifier
 * @param message    free text; empty for none
 * @param FQDD       the object the entry is about; empty for none
 * @param args       message arguments in order; empty for none
 *
 * @code
 * QZLogViaDbus::Log(bus, 12, 3, 1, "FAN0001", "", "Fan.Embedded.3", {"3", "2400 rpm"});
 * @endcode
 */
BMCBUS_EXPORT void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category,
                       unsigned short severity, const std::string& messageID,
                       const std::string& message, const std::string& FQDD,
                       const std::vector<std::string>& args);

/** Files one entry without arguments. */
BMCBUS_EXPORT void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category,
                       unsigned short severity, const std::string& messageID,
                       const std::string& message, const std::string& FQDD);

/** Files one entry with nothing but its identifier. */
BMCBUS_EXPORT void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category,
                       unsigned short severity, const std::string& messageID);

} // namespace QZLogViaDbus
