#pragma once

/**
 * @file
 * The run-time half of the signal subscribers. For generated code.
 */

#include <bmcbus/client/object.hpp>
#include <bmcbus/message.hpp>

namespace bmcbus::client
{

/** What only a subscriber class has. */
struct SignalParts
{
    const char* interface;
    const char* member;
    const char* enter; ///< format of the handler's first line
    Member<Slot> match;
    void* (*make)(std::string path); ///< an object that is on no bus
    void (*destroy)(void* object);
};

/** A signal subscriber class. Its fields are in the order of the signal's arguments. */
struct SignalClass : Description, SignalParts
{
};

// The functions take the anchor of an object whose class is a SignalClass.

/**
 * Installs the match; blocks for one AddMatch call.
 *
 * Throws `bmcbus::Error` without a usable connection. A rule that the bus refuses is not noticed.
 */
BMCBUS_EXPORT void Subscribe(Anchor& anchor);

/** Handles one signal. */
BMCBUS_EXPORT void Received(Anchor& anchor, Message& message);

} // namespace bmcbus::client
