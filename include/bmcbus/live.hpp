#pragma once

/**
 * @file
 * Live objects: values that are followed through restarts, hot-plug and strangers.
 *
 * `bmcbus::Live` is one object, `bmcbus::LiveSet` every object of an interface below a path,
 * `bmcbus::LiveSignal` a signal that carries data. All use the generated classes.
 */

#include <bmcbus/live/object.hpp>
#include <bmcbus/live/set.hpp>
#include <bmcbus/live/signal.hpp>
