#pragma once

/**
 * @file
 * Owned references to sd-bus objects.
 *
 * A connection and everything that refers to it belong to one thread: drop these on the thread that
 * dispatches the connection. After fork() dropping them in the child is allowed and does nothing to
 * the parent.
 */

#include <systemd/sd-bus.h>

#include <memory>

namespace bmcbus
{

/** Drops one reference. */
struct Unref
{
    void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

using BusRef = std::unique_ptr<sd_bus, Unref>;
using MessageRef = std::unique_ptr<sd_bus_message, Unref>;

/** A subscription or a pending call; dropping it ends the one and cancels the other. */
using Slot = std::unique_ptr<sd_bus_slot, Unref>;

} // namespace bmcbus
