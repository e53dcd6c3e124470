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
};

/** A signal subscriber class. Its fields are in the order of the signal's arguments. */
struct SignalClass : Description, SignalParts
{
};

// The functions take the anchor of an object whose class is a SignalClass.

/**
 * Installs the match and adds @p first if it has a function; blocks for one AddMatch call.
 *
 * Throws `bmcbus::Error` without a usable connection. A rule that the bus refuses is not noticed.
 */
BMCBUS_EXPORT void Subscribe(Anchor& anchor, Callback first);

/** Makes an object in this way, takes @p path for it, and lets the registry own it. */
BMCBUS_EXPORT void* Make(std::string& path, Callback first, const Registry& registry);

/** Handles one signal. */
BMCBUS_EXPORT void Received(Anchor& anchor, Message& message);

} // namespace bmcbus::client
