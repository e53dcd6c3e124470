// Folders of private buses whose process ended without removing them. A folder in use holds a lock
// on a file in it, and the lock goes with the process.

#include "leftovers.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <system_error>
#include <vector>

namespace bmcbus::testing
{
namespace
{

constexpr const char* lockName = "held";

} // namespace

int HoldFolder(const std::filesystem::path& folder)
{
    // Whoever sees the file under its name sees it locked.
    const std::string unnamed = folder / "new";
    const int file = open(unnamed.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
    if (file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0)
    {
        std::error_code ignored;
        std::filesystem::rename(unnamed, folder / lockName, ignored);
    }
    return file;
}

void RemoveLeftovers(const std::filesystem::path& base, const std::string& start)
{
    std::error_code ended;
    std::vector<std::filesystem::path> folders;
    std::filesystem::directory_iterator each(base, ended);
    for (; !ended && each != std::filesystem::directory_iterator(); each.increment(ended))
    {
        if (each->path().filename().string().starts_with(start))
        {
            folders.push_back(each->path());
        }
    }
    for (const std::filesystem::path& folder : folders)
    {
        const std::string lock = folder / lockName;
        const int file = open(lock.c_str(), O_RDWR | O_CLOEXEC);
        if (file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0)
        {
            std::error_code ignored;
            std::filesystem::remove_all(folder, ignored);
        }
        if (file >= 0)
        {
            close(file);
        }
    }
}

} // namespace bmcbus::testing
