#pragma once

/**
 * @file
 * Entries for the controller's event log with a result: blocking, with a completion, or awaited.
 *
 * The same request as in `qzlog_via_dbus.hpp`; nothing is logged or thrown, the result tells.
 * Without a connection it goes out on the calling thread's default one. See `call.hpp` for threads,
 * ends of connections and fork().
 *
 * @code
 * using namespace bmcbus;
 * const event_log::Entry entry(12, 3, 1, "FAN0001"); // agent, category, severity, identifier
 * const auto filed = co_await event_log::Async_Log(entry, {.timeout = 2s});
 * if (event_log::FateOf(filed) == event_log::Fate::Unreachable &&
 *     filed.error().kind != CallFailure::Refused)
 *     Keep(entry); // for another try
 * @endcode
 */

#include <bmcbus/export.h>
#include <bmcbus/request.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/** The controller's event log, with results. */
namespace bmcbus::event_log
{

/**
 * One entry: a plain value. Texts are UTF-8 without zero bytes, arguments hold any bytes.
 *
 * Has a constructor, as g++ 12 destroys what is written in braces behind `co_await` twice.
 */
struct Entry
{
    /** Any thread. */
    Entry(uint16_t agent, uint16_t kind, uint16_t gravity, std::string id, std::string text = {},
          std::string object = {}, std::vector<std::string> arguments = {}) :
        agentID(agent),
        category(kind),
        severity(gravity),
        messageID(std::move(id)),
        message(std::move(text)),
        FQDD(std::move(object)),
        args(std::move(arguments))
    {
    }

    uint16_t agentID;              ///< identifies the reporting agent
    uint16_t category;             ///< entry category
    uint16_t severity;             ///< entry severity
    std::string messageID;         ///< message identifier
    std::string message;           ///< free text; empty for none
    std::string FQDD;              ///< the object the entry is about; empty for none
    std::vector<std::string> args; ///< message arguments in order; empty for none
};

/** What became of an entry. */
enum class Fate : uint8_t
{
    Sent,    ///< the daemon took it; the result's value is its status
    Refused, ///< the daemon answered, with an error or with something else
    /// Nobody answered: no such service, connection lost, no time left, or not sent. What can
    /// never be sent, like text that is no UTF-8, has an error of kind `CallFailure::Refused`.
    Unreachable
};

/**
 * The fate of an entry by its result.
 *
 * The daemon's errors are told from those that the bus gives in its place as `qzlog_via_dbus.hpp`
 * says. Any thread may call it.
 */
BMCBUS_EXPORT Fate FateOf(const Result<int32_t>& result) noexcept;

/// @cond internal
namespace detail
{
BMCBUS_EXPORT Request Log(sd_bus* bus, const Entry& entry) noexcept;
} // namespace detail
/// @endcond

/** Files @p entry and waits for the daemon's status. @{ */
inline Result<int32_t> Try_Log(const Entry& entry, const CallOptions& options = {},
                               sd_bus* bus = nullptr)
{
    return detail::Log(bus, entry).Try<int32_t>(options);
}
/** @} */

/** Files it when it is awaited. */
inline AsyncCall<int32_t> Async_Log(const Entry& entry, const CallOptions& options = {},
                                    sd_bus* bus = nullptr)
{
    return detail::Log(bus, entry).Async<int32_t>(options);
}
/** Files it; @p completion gets the daemon's status. `Detach()` the handle to file and forget. */
template <std::invocable<Result<int32_t>> Completion>
Call Async_Log(const Entry& entry, Completion&& completion, const CallOptions& options = {},
               sd_bus* bus = nullptr)
{
    return detail::Log(bus, entry).Async<int32_t>(std::forward<Completion>(completion), options);
}

} // namespace bmcbus::event_log
