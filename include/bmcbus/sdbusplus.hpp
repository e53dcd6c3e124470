#pragma once

/**
 * @file
 * The sdbusplus types of the public interface under one spelling.
 *
 * sdbusplus has renamed its types more than once. The names below are aliases of the very types
 * that the installed generation uses, so `bmcbus::Bus&` takes an object declared as
 * `sdbusplus::bus::bus` or `sdbusplus::bus_t`, whichever spelling that generation knows.
 *
 * Nothing here needs `<sdbusplus/bus/match.hpp>`, which g++ 12 rejects in recent generations.
 */

#include <bmcbus/error.hpp>
#include <bmcbus/message.hpp>
#include <bmcbus/object_path.hpp>

#include <sdbusplus/bus.hpp>
#include <sdbusplus/message.hpp>

#include <utility>

namespace bmcbus
{

/** A connection wrapper. */
using Bus = decltype(std::declval<const Message&>().get_bus());

/**
 * Gives the connection inside @p bus, borrowed.
 *
 * Does not block; use it on the thread that the connection belongs to.
 */
inline sd_bus* Connection(Bus& bus)
{
    struct Peek : Bus
    {
        static sd_bus* Of(Bus& b) { return (b.*&Peek::get)(); }
    };
    return Peek::Of(bus);
}

} // namespace bmcbus
