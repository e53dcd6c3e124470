#pragma once

/**
 * @file
 * Object paths as values (`o`): the type of sdbusplus.
 */

#include <sdbusplus/message/native_types.hpp>

namespace bmcbus
{

/// @cond internal
namespace lookup
{
using namespace sdbusplus;
using namespace sdbusplus::message;
using ObjectPath = object_path;
} // namespace lookup
/// @endcond

/** An object path, wherever the installed generation declares it; its text is `str`. */
using ObjectPath = lookup::ObjectPath;

} // namespace bmcbus
