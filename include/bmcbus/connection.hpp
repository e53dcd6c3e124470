#pragma once

/**
 * @file
 * A thread's connection to the bus: what it takes, and emptying its queue.
 */

#include <bmcbus/export.h>

#include <systemd/sd-bus.h>

#include <cstdint>

namespace bmcbus
{

/**
 * Says how many bytes the bus takes in one message, at first 32 MiB as on a stock system bus
 * (`max_message_size` in its configuration; a bus does not tell).
 *
 * What would become larger is refused before it is sent, with `EMSGSIZE` in the log, like text that
 * is not UTF-8: the daemon would close the sender's whole connection. The protocol allows 128 MiB,
 * and arrays of 64 MiB; a larger number means the former. For the whole process, from the next
 * message on. Any thread may call it; a forked child inherits it. Does not block.
 */
BMCBUS_EXPORT void SetMessageLimit(uint32_t bytes);

/**
 * Handles everything that has arrived on a connection, without waiting for more.
 *
 * Messages that arrive while a thread waits for the reply to a blocking call stay queued on its
 * connection until they are processed: signals, and replies that came after their call had timed
 * out. A thread with an event loop on the connection needs this after blocking calls (see
 * `object_mapper.hpp`), and one that never waits for signals needs it now and then: sd-bus keeps up
 * to 393,216 messages, then every call fails. Only where nothing but this library's blocking calls
 * was ever sent on the connection, and it is in no sd-event loop, the library does this by itself
 * after each of them. One line of level 4 in the log tells when more than 10,000 messages wait.
 *
 * Runs handlers of the connection. Belongs to the thread of the connection, outside its handlers.
 *
 * @param bus  null means the calling thread's default system-bus connection, if there is one; then
 *             nothing is done where nobody holds it
 * @return how many messages and time-outs were handled, or a negative errno: the connection has
 *         ended (`ENOTCONN`, `ECONNRESET`), is inherited over fork() (`ECHILD`), or is processing
 *         (`EBUSY`)
 *
 * @code
 * while (const Job* job = Next())
 * {
 *     fans.Try_updateFanPWMData(job->fan, job->pwm); // a direct proxy
 *     bmcbus::ProcessQueue();
 * }
 * @endcode
 */
BMCBUS_EXPORT int ProcessQueue(sd_bus* bus = nullptr);

} // namespace bmcbus
