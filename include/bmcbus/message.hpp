#pragma once

/**
 * @file
 * The name of sdbusplus's message, for declarations.
 *
 * The class itself is in `<bmcbus/sdbusplus.hpp>`, whose headers take long to compile.
 */

#pragma GCC visibility push(default)

namespace sdbusplus::message
{
class message;
} // namespace sdbusplus::message

#pragma GCC visibility pop

namespace bmcbus
{

/** A counted reference to a bus message; copies share one read position. */
using Message = sdbusplus::message::message;

} // namespace bmcbus
