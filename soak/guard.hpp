#pragma once

// SIGINT and SIGTERM, and operations that never end.

#include <filesystem>

namespace soak
{

// Has the two signals noted, and ends the process with a line when an operation takes minutes,
// which is a deadlock; `folder`, the bus's own, is then removed.
void Guard(const std::filesystem::path& folder);

// An operation begins; `name` lives as long as the program.
void Begin(const char* name);

// Nothing is under way any more.
void Rest();

// Whether one of the signals came.
bool Interrupted();

} // namespace soak
