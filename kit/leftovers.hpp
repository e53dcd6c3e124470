#pragma once

// A test that crashes cannot remove its temporary folder. So each folder has a file that its test
// keeps locked; the lock ends with the process, and the next test removes what nobody holds.

#include <filesystem>
#include <string>

namespace bmcbus::testing
{

// The descriptor that holds the folder, to be closed when it has been removed; -1 where the file
// system knows no locks.
int HoldFolder(const std::filesystem::path& folder);

// Removes the folders in `base` whose names begin so and that were held by a process that has
// ended.
void RemoveLeftovers(const std::filesystem::path& base, const std::string& start);

} // namespace bmcbus::testing
