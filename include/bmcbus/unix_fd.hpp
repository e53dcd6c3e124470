#pragma once

/**
 * @file
 * Descriptors that travel over the bus (`h`).
 */

#include <bmcbus/export.h>
#include <bmcbus/wire.hpp>

#include <compare>
#include <memory>

namespace bmcbus
{

/**
 * An open descriptor that closes itself.
 *
 * Copies share the one descriptor, which is closed once, when the last of them goes; so copying
 * never fails and takes no descriptor. What a message brings is duplicated, close-on-exec, and does
 * not depend on the message any more.
 *
 * A cached proxy's property holds one copy and its getter gives another: a reader keeps what it
 * read, even when a signal has brought the object a new one. Who needs a number that belongs to
 * nobody else takes Duplicate().
 *
 * Copies may be used in several threads at once, one object in one thread at a time. After fork()
 * the child's copies close the child's descriptors only. Nothing here blocks.
 *
 * @code
 * bmcbus::UnixFd log = proxy.Get_Log();
 * if (log)
 * {
 *     write(log.get(), text.data(), text.size());
 * }
 * @endcode
 */
class BMCBUS_EXPORT UnixFd
{
  public:
    /** None. */
    UnixFd() = default;

    /** A duplicate of @p fd, close-on-exec; @p fd stays the caller's. Throws std::system_error. */
    explicit UnixFd(int fd);

    /**
     * Takes @p fd over as it is; a negative one is none. Throws `std::bad_alloc`, and @p fd is
     * closed then.
     */
    static UnixFd Adopt(int fd);

    /** The descriptor, borrowed; -1 for none. */
    int get() const noexcept;

    /** Whether there is one. */
    explicit operator bool() const noexcept { return get() >= 0; }

    /** Another descriptor for the same open file, close-on-exec, the caller's own; -1 for none.
     * Throws std::system_error. */
    int Duplicate() const;

    /** By the descriptor's number: a copy is equal, a duplicate is not. */
    friend bool operator==(const UnixFd& a, const UnixFd& b) noexcept { return a.get() == b.get(); }
    /** By the descriptor's number. */
    friend std::strong_ordering operator<=>(const UnixFd& a, const UnixFd& b) noexcept
    {
        return a.get() <=> b.get();
    }

  private:
    class Owned;
    std::shared_ptr<const Owned> owned_;
};

namespace client
{

/** Appending none throws `bmcbus::Error` (EBADF). */
template <>
struct Wire<UnixFd>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('h');

    BMCBUS_EXPORT static bool Read(sd_bus_message* message, UnixFd& value);
    BMCBUS_EXPORT static void Append(sd_bus_message* message, const UnixFd& value);
};

} // namespace client
} // namespace bmcbus
