#pragma once

// The asynchronous search for a service with a handle on the pending request, for objects that may
// go away before the answer comes.

#include "bus/bus.hpp"

#include <string>

namespace ObjectMapper::internal
{

// As Wrappers::PathAndInterfaceToServiceAsync (request, log lines, exceptions, completion), but the
// caller owns the pending request, and chooses the connection; null means the thread's default one.
// Dropping the slot before the callback ran cancels it: the callback is never called. It may be
// dropped inside the callback, and must be dropped on the thread that dispatches the connection.
// While held it keeps the connection alive.
bmcbus::Slot LookupServiceAsync(sd_bus* bus, const std::string& path, const std::string& interface,
                                void (*callback)(bool, std::string&, void*), void* context);

} // namespace ObjectMapper::internal
