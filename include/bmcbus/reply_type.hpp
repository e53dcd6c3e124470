#pragma once

/**
 * @file
 * What is known about a reply before it comes. For the run-time half.
 */

#include <systemd/sd-bus.h>

namespace bmcbus::detail
{

/** How to read the body of a reply. */
struct ReplyType
{
    /** What the body must begin with; inside a variant where `property` is set. */
    const char* signature;
    /** Whether the value comes in a variant of that very type. */
    bool property;
    /** Reads it into the result's value. Throws `bmcbus::Error`. */
    void (*read)(sd_bus_message* reply, void* value, const void* how);
    /** Handed to `read`. */
    const void* how;
};

} // namespace bmcbus::detail
