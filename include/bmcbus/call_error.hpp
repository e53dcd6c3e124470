#pragma once

/**
 * @file
 * Why a call has no result.
 */

#include <bmcbus/export.h>

#include <cstdint>
#include <string>

namespace bmcbus
{

/** Where a call failed. */
enum class CallFailure : uint8_t
{
    Remote,  /**< an error reply, of the service or of the bus for it; name and text as they came */
    Timeout, /**< our time for it ran out; the service may still have done it */
    Disconnected, /**< the connection ended, or was none; the service may have done it */
    Cancelled,    /**< given up here, for example by destroying its proxy */
    Refused,      /**< never sent */
    ReplyTypes,   /**< answered, with other types than the description's */
    OutOfMemory   /**< answered, but there was no memory for the value */
};

/** Names of the errors that come from this process, not from the bus. */
namespace error_name
{
/** What a `CallError` of that kind has for a name. @{ */
inline constexpr const char* timeout = "bmcbus.Error.Timeout";
inline constexpr const char* disconnected = "bmcbus.Error.Disconnected";
inline constexpr const char* cancelled = "bmcbus.Error.Cancelled";
inline constexpr const char* refused = "bmcbus.Error.Refused";
inline constexpr const char* replyTypes = "bmcbus.Error.ReplyTypes";
inline constexpr const char* outOfMemory = "bmcbus.Error.OutOfMemory";
/** @} */
} // namespace error_name

/**
 * What a failed call ended with.
 *
 * A peer that vanished shows as the bus's `org.freedesktop.DBus.Error.NoReply`, an unknown service
 * as its `…ServiceUnknown`: both are `Remote`. A time that ran out here is `Timeout`, by whatever
 * name libsystemd would call it. Compare names, not texts: texts are for people. Where memory is
 * too short for a name, the name is empty and `kind` still right.
 */
struct BMCBUS_EXPORT CallError
{
    CallError() noexcept;
    /** Takes what it consists of; any thread. */
    CallError(CallFailure kind, std::string name, std::string message) noexcept;
    /** Copies and moves as its members do. @{ */
    CallError(const CallError& other);
    CallError(CallError&& other) noexcept;
    CallError& operator=(const CallError& other);
    CallError& operator=(CallError&& other) noexcept;
    /** @} */
    ~CallError();

    /** Equal in all members; each used by one thread at a time. */
    friend bool operator==(const CallError&, const CallError&) = default;

    std::string name;    /**< D-Bus error name, or one of `error_name` */
    std::string message; /**< for people; names both signatures for `ReplyTypes` */
    CallFailure kind = CallFailure::Remote; /**< where it failed */
};

} // namespace bmcbus
