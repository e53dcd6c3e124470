#pragma once

/**
 * @file
 * The exception of failed bus calls, without the rest of sdbusplus.
 */

#include <sdbusplus/exception.hpp>

namespace bmcbus
{

/** What failed bus calls throw; a `std::exception`. */
using Error = sdbusplus::exception::SdBusError;

} // namespace bmcbus
