#pragma once

// The lines that go with a reply to GetAll, whoever asked. They carry the name of the public
// handler.

#include <systemd/sd-bus.h>

#include <exception>

namespace Async::Ops::detail
{

// Logs that the reply came, and what it says where it is an error; whether there is something to
// read.
bool LogReply(sd_bus_message* reply);

// It was read.
void LogRead();

// It could not be read, or its handling failed.
void LogFailure(const std::exception& error);

// Everything is done, after a reply that was none of an error.
void LogEnd();

} // namespace Async::Ops::detail
