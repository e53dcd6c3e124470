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

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <utility>

namespace bmcbus
{

/** A counted reference to a bus message; copies share one read position. */
using Message = sdbusplus::message::message;

/** A connection wrapper. */
using Bus = decltype(std::declval<const Message&>().get_bus());

/** What failed bus calls throw; a `std::exception`. */
using Error = sdbusplus::exception::SdBusError;

/// @cond internal
namespace lookup
{
using namespace sdbusplus;
using namespace sdbusplus::message;
using ObjectPath = object_path;
} // namespace lookup
/// @endcond

/** An object path, wherever the installed generation declares it. */
using ObjectPath = lookup::ObjectPath;

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
