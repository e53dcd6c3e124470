#pragma once

/**
 * @file
 * Questions to the object mapper: which service owns an object, and what lies below or above it.
 *
 * The object mapper (bus name `xyz.openbmc_project.ObjectMapper`) knows every object path of the
 * controller with the services and interfaces behind it. The blocking functions come first, the
 * asynchronous ones after them.
 *
 * **Connection.** Without a connection argument a function uses the calling thread's default
 * system-bus connection (`sd_bus_default_system`), takes a reference for the time of the call and
 * drops it. While the caller (or a proxy, match or slot of its) holds a reference too, that is
 * one cheap counter; when nobody does, every call connects to the bus anew:
 *
 * @code
 * sd_bus* hold = nullptr;
 * sd_bus_default_system(&hold); // once per thread that makes calls
 * @endcode
 *
 * **Threads.** Any thread may call; calls of different threads do not share a connection. A
 * connection given as an argument must belong to the calling thread. After `fork` an inherited
 * connection answers every call with an exception (`ECHILD`); once the child has dropped its
 * references to it the next call connects afresh.
 *
 * **Blocking calls and event loops.** Messages that arrive during a blocking call are queued on the
 * connection and dispatched later. With `sd_bus_attach_event` the loop sees to that by itself. Any
 * other loop (asio, zloop, poll) is not woken for them, because the descriptor has already been
 * read: after a blocking call made outside a bus handler, call `sd_bus_process` until it returns 0
 * before waiting on the descriptor again.
 *
 * **UNIX signals.** A signal that the process catches disturbs no call: while a call waits, the
 * calling thread keeps it blocked, and its handler runs when the wait is over, or at once in
 * another thread that does not block it. Signals that report a fault (SIGSEGV and its like) are
 * never held up, nor are SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGALRM and SIGTSTP where the process
 * does not catch them.
 *
 * **Text.** Paths and names that are not UTF-8, or contain a zero byte, are refused before anything
 * is sent; the connection is not harmed.
 */

#include <bmcbus/export.h>
#include <bmcbus/sdbusplus.hpp>

#include <systemd/sd-bus.h>

#include <list>
#include <map>
#include <string>

/** Everything about the object mapper. */
namespace ObjectMapper::Wrappers
{

/** Service name to the interfaces it implements on one path, in the mapper's order. */
using ServiceMap = std::map<std::string, std::list<std::string>>;

/** Object path to the services behind it. */
using SubTreeMap = std::map<std::string, ServiceMap>;

/**
 * @name Blocking questions
 *
 * Each sends one method call and waits for the reply, at most for the connection's method-call
 * timeout (`sd_bus_set_method_call_timeout`, 25 s unless changed). An empty interface list asks for
 * all interfaces.
 *
 * A failure is logged at level 2 with the arguments and thrown: `bmcbus::Error` with the mapper's
 * error name and text, or with the failed step.
 * @{
 */

/**
 * The services that implement at least one of @p interfaces on @p path.
 *
 * @code
 * for (const auto& [service, interfaces] : GetObject("/xyz/openbmc_project/fan0", {}))
 *     puts(service.c_str());
 * @endcode
 */
BMCBUS_EXPORT ServiceMap GetObject(const std::string& path,
                                   const std::list<std::string>& interfaces);

/** The objects below @p path, at most @p depth levels down (0: no limit), with their services. */
BMCBUS_EXPORT SubTreeMap GetSubTree(const std::string& path, const int& depth,
                                    const std::list<std::string>& interfaces);

/** The paths of the objects below @p path, at most @p depth levels down (0: no limit). */
BMCBUS_EXPORT std::list<std::string> GetSubTreePaths(const std::string& path, const int& depth,
                                                     const std::list<std::string>& interfaces);

/** The objects above @p path with their services. */
BMCBUS_EXPORT SubTreeMap GetAncestors(const std::string& path,
                                      const std::list<std::string>& interfaces);

/**
 * Always an empty list: nothing is asked, @p path is not looked at.
 *
 * Throws `bmcbus::Error`, unlogged, where there is no bus to connect to.
 */
BMCBUS_EXPORT std::list<std::string> GetAssociations(const std::string& path);

/**
 * Finds the service that implements @p interface on @p path.
 *
 * Of several services the one whose name sorts first (byte-wise) is taken. Never throws a
 * `std::exception`: @p service is empty when there is no such service and when the question failed,
 * and only the level 2 lines tell one from the other.
 *
 * @param service  receives the name; must be another object than @p path and @p interface
 */
BMCBUS_EXPORT void PathAndInterfaceToService(const std::string& path, const std::string& interface,
                                             std::string& service);

/** As PathAndInterfaceToService, but a failed question is logged and thrown; @p service is empty.
 */
BMCBUS_EXPORT void PathAndInterfaceToService2(const std::string& path, const std::string& interface,
                                              std::string& service);

/** @} */

/**
 * @name Asynchronous questions
 *
 * Each queues one method call and returns at once; only a connection that is still being set up is
 * waited for. The callback runs once, on the thread that dispatches the connection, when the reply,
 * an error reply or the connection's method-call timeout arrives. There is no way to cancel.
 *
 * A request that cannot be queued is logged at level 2 and thrown, as a `std::runtime_error` that
 * names the failed sd-bus call; its callback never runs.
 *
 * The connection must live on and be dispatched: the forms without a connection argument leave the
 * request with the calling thread's default connection and keep no reference to it. **The caller
 * must hold a reference to that connection** (`sd_bus_default_system`, usually attached to the
 * event loop) until the callback ran. When the last reference goes, or the connection is closed,
 * the request is dropped without a callback; nothing leaks.
 *
 * The map or string that a callback receives lives as long as the call; it may be moved from.
 *
 * A callback that throws a `std::exception` when it is told of success is called a second time
 * with failure; the exception is logged at level 2, as is one thrown when told of failure. Anything
 * else that leaves a callback ends the process (`std::terminate`): it must not unwind through
 * sd-bus.
 *
 * @code
 * PathAndInterfaceToServiceAsync("/xyz/openbmc_project/fan0", "com.tamm.bmc.Thermal.FanReporting",
 *     [](bool success, std::string& service, void* context)
 *     { if (success) static_cast<Fans*>(context)->Use(service); },
 *     &fans);
 * @endcode
 * @{
 */

/** Told of success, the services (empty on failure) and the caller's context. */
using GetObjectCallback = void (*)(bool, ServiceMap&, void*);

/** Told of success, whether it failed by a timeout, the services and the caller's context. */
using GetObjectCallback2 = void (*)(bool, bool, ServiceMap&, void*);

/** Told of success, the chosen service (empty on failure) and the caller's context. */
using ServiceCallback = void (*)(bool, std::string&, void*);

/** Told of success, whether it failed by a timeout, the service and the caller's context. */
using ServiceCallback2 = void (*)(bool, bool, std::string&, void*);

/** Asks on @p bus for the services that implement at least one of @p interfaces on @p path. */
BMCBUS_EXPORT void GetObjectAsync(bmcbus::Bus& bus, const std::string& path,
                                  const std::list<std::string>& interfaces,
                                  GetObjectCallback callback, void* context);

/** As above on the calling thread's default connection, which the caller must hold. */
BMCBUS_EXPORT void GetObjectAsync(const std::string& path, const std::list<std::string>& interfaces,
                                  GetObjectCallback callback, void* context);

/**
 * As GetObjectAsync, with a callback that also learns of timeouts.
 *
 * Timed out means that the reply was an error named `org.freedesktop.DBus.Error.Timeout`, or
 * `org.freedesktop.DBus.Error.NoReply` after the connection's method-call timeout had run out,
 * which is how sd-bus reports its own. An earlier `NoReply` is a peer that went away.
 */
BMCBUS_EXPORT void GetObjectAsync2(bmcbus::Bus& bus, const std::string& path,
                                   const std::list<std::string>& interfaces,
                                   GetObjectCallback2 callback, void* context);

/** As above on the calling thread's default connection, which the caller must hold. */
BMCBUS_EXPORT void GetObjectAsync2(const std::string& path,
                                   const std::list<std::string>& interfaces,
                                   GetObjectCallback2 callback, void* context);

/**
 * Finds the service that implements @p interface on @p path, on the calling thread's default
 * connection, which the caller must hold. Of several services the first by name is taken.
 */
BMCBUS_EXPORT void PathAndInterfaceToServiceAsync(const std::string& path,
                                                  const std::string& interface,
                                                  ServiceCallback callback, void* context);

/** As PathAndInterfaceToServiceAsync, with a callback that also learns of timeouts. */
BMCBUS_EXPORT void PathAndInterfaceToServiceAsync2(const std::string& path,
                                                   const std::string& interface,
                                                   ServiceCallback2 callback, void* context);

/** @} */

/**
 * @name Reply handlers
 *
 * What the asynchronous questions pass on; of use to code that sends its own request. Each takes
 * over its record, which must come from `new`, and deletes it before it calls the callback.
 * @{
 */

/** A completion callback with the caller's context. */
template <class Callback>
struct CallbackRecord
{
    Callback callback; /**< called when the request is over */
    void* context;     /**< handed to it as it is */
};

/**
 * Handles the reply to a `GetObject` call; always returns 1.
 *
 * @param reply   borrowed
 * @param record  a `CallbackRecord<GetObjectCallback>`
 */
BMCBUS_EXPORT int Internal_GetObjectAsync_Callback(sd_bus_message* reply, void* record,
                                                   sd_bus_error* error);

/**
 * As Internal_GetObjectAsync_Callback for a `CallbackRecord<GetObjectCallback2>`.
 *
 * For a call that was not queued by GetObjectAsync2 the time of the timeout is not known, so only
 * the error name `org.freedesktop.DBus.Error.Timeout` counts as one.
 */
BMCBUS_EXPORT int Internal_GetObjectAsync_Callback2(sd_bus_message* reply, void* record,
                                                    sd_bus_error* error);

/**
 * Chooses the first service by name and passes it on.
 *
 * @param success   not looked at: a failed request has no services
 * @param services  the mapper's answer
 * @param record    a `CallbackRecord<ServiceCallback>`
 */
BMCBUS_EXPORT void
Internal_PathAndInterfaceToServiceAsync_Callback(bool success, ServiceMap& services, void* record);

/** As above for a `CallbackRecord<ServiceCallback2>`; @p timedOut is passed on with a failure. */
BMCBUS_EXPORT void Internal_PathAndInterfaceToServiceAsync_Callback2(bool success, bool timedOut,
                                                                     ServiceMap& services,
                                                                     void* record);

/** @} */

} // namespace ObjectMapper::Wrappers
