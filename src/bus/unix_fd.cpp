// A descriptor with shared ownership: copies of a UnixFd refer to one descriptor, which the last
// of them closes.

#include <bmcbus/unix_fd.hpp>

#include "bus/bus.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace bmcbus
{
namespace
{

// Beyond the standard streams, so that none of them is taken when it happens to be closed.
constexpr int lowest = 3;

int DuplicateOf(int fd)
{
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, lowest);
    if (copy < 0)
    {
        throw std::system_error(errno, std::generic_category(), "fcntl F_DUPFD_CLOEXEC");
    }
    return copy;
}

} // namespace

class UnixFd::Owned
{
  public:
    Owned() = default;
    ~Owned()
    {
        if (fd >= 0)
        {
            close(fd);
        }
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    int fd = -1;
};

UnixFd::UnixFd(int fd)
{
    auto owned = std::make_shared<Owned>();
    owned->fd = DuplicateOf(fd);
    owned_ = std::move(owned);
}

UnixFd UnixFd::Adopt(int fd)
{
    UnixFd result;
    if (fd >= 0)
    {
        try
        {
            auto owned = std::make_shared<Owned>();
            owned->fd = fd;
            result.owned_ = std::move(owned);
        }
        catch (...)
        {
            close(fd);
            throw;
        }
    }
    return result;
}

int UnixFd::get() const noexcept
{
    return owned_ ? owned_->fd : -1;
}

int UnixFd::Duplicate() const
{
    return owned_ ? DuplicateOf(owned_->fd) : -1;
}

namespace client
{

bool Wire<UnixFd>::Read(sd_bus_message* message, UnixFd& value)
{
    int borrowed = -1;
    if (!ReadBasic(message, SD_BUS_TYPE_UNIX_FD, &borrowed))
    {
        return false;
    }
    value = UnixFd(borrowed);
    return true;
}

void Wire<UnixFd>::Append(sd_bus_message* message, const UnixFd& value)
{
    const int fd = value.get();
    if (fd < 0)
    {
        throw Error(EBADF, "sd_bus_message_append_basic");
    }
    AppendBasic(message, SD_BUS_TYPE_UNIX_FD, &fd);
}

} // namespace client
} // namespace bmcbus
