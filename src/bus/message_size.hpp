#pragma once

// How large the message grows that a thread is putting together. The daemon closes the connection
// of who sends more than its limit, so what is too large is refused while it is written.

#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace bmcbus
{

// What a thread is putting together; one message at a time, others are not counted.
struct Growing
{
    const sd_bus_message* message = nullptr;
    uint64_t bytes = 0;
};
extern thread_local constinit Growing growing;

extern constinit std::atomic<uint32_t> messageLimit;

// Fixed part, signature, sender, the field codes with their padding, and the names, of which only a
// path may be longer than 255 bytes.
inline constexpr uint64_t messageHeader = 1536;

// Whether a message with so many bytes of text in few pieces is small enough.
inline bool Fits(uint64_t text)
{
    return messageHeader + text <= messageLimit.load(std::memory_order_relaxed);
}

// Begins with `message`, to an object whose path has so many bytes; -EMSGSIZE when that alone is
// too much.
inline int StartMessage(const sd_bus_message* message, uint64_t path)
{
    growing = {message, (messageHeader + path + 7) / 8 * 8};
    return Fits(path) ? 0 : -EMSGSIZE;
}

// How large the message of this thread has become; goes on with one that was left at a size.
inline uint64_t MessageSize()
{
    return growing.bytes;
}
inline void ContinueMessage(const sd_bus_message* message, uint64_t size)
{
    growing = {message, size};
}

// Before so many bytes are appended at a multiple of `alignment`, a power of two: -EMSGSIZE when
// the message would become larger than the bus takes.
inline int Grow(const sd_bus_message* message, size_t alignment, uint64_t bytes)
{
    Growing& own = growing;
    if (own.message != message)
    {
        return 0;
    }
    own.bytes = ((own.bytes + alignment - 1) & ~uint64_t{alignment - 1}) + bytes;
    return own.bytes <= messageLimit.load(std::memory_order_relaxed) ? 0 : -EMSGSIZE;
}

} // namespace bmcbus
