#pragma once

// The errors that calls end with. Where memory is short one has less to say, but is there.

#include <bmcbus/call.hpp>
#include <systemd/sd-bus.h>

#include <exception>

namespace bmcbus::detail
{

CallError TimeoutError() noexcept;
CallError DisconnectedError() noexcept;

// `text` with `more` behind it.
CallError RefusedError(const char* text, const char* more = "") noexcept;
CallError TypesError(const char* expected, const char* found) noexcept;

// Of a reply that could not be read.
CallError ReadError(const std::exception& failure) noexcept;

// A step that failed with a negative errno before anything was sent.
CallError StepError(int result, const char* step) noexcept;

// An error reply's name and text.
CallError RemoteError(const sd_bus_error& error) noexcept;

// From an error reply, or what libsystemd makes up in its place. `overdue` says whether our time
// for the call has run out.
CallError ReplyError(sd_bus_message* reply, bool overdue) noexcept;

} // namespace bmcbus::detail
