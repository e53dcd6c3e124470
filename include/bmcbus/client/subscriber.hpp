#pragma once

/**
 * @file
 * The run-time half of the signal subscribers. For generated code.
 */

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

/** A signal subscriber class. */
struct SignalClass : Description
{
    const char* member;
    const char* interface;
    const char* enter; ///< format of the handler's first line
    uint16_t match;
};

/**
 * Installs the match; blocks for one AddMatch call.
 *
 * Throws `bmcbus::Error` without a usable connection. A rule that the bus refuses is not noticed.
 */
BMCBUS_EXPORT void Subscribe(void* object, const SignalClass& about);

/** Handles one signal. */
BMCBUS_EXPORT void Received(void* object, const SignalClass& about, sd_bus_message* message);

} // namespace bmcbus::client
