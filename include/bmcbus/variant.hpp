#pragma once

/**
 * @file
 * A value of any D-Bus type, as what travels as `v`.
 */

#include <bmcbus/variant/stored.hpp>
#include <bmcbus/variant/value.hpp>
