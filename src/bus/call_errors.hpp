#pragma once

// The errors that calls end with when no reply says so.

#include <bmcbus/call_error.hpp>
#include <systemd/sd-bus.h>

namespace bmcbus::detail
{

CallError TimeoutError();
CallError DisconnectedError();
CallError CancelledError();

// A step that failed with a negative errno before anything was sent.
CallError StepError(int result, const char* step);

// From an error reply, or what libsystemd makes up in its place. `overdue` says whether our time
// for the call has run out.
CallError ReplyError(sd_bus_message* reply, bool overdue);

} // namespace bmcbus::detail
