#pragma once

// How large the message grows that a thread is putting together. The daemon closes the connection
// of who sends more than its limit, so what is too large is refused while it is written.

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>

namespace bmcbus
{

// Begins with `message`, whose header holds so many bytes of names. One message a thread at a time;
// others are not counted.
void StartMessage(const sd_bus_message* message, uint64_t names);

// How large the message of this thread has become; goes on with one that was left at a size.
uint64_t MessageSize();
void ContinueMessage(const sd_bus_message* message, uint64_t size);

// Before so many bytes are appended at a multiple of `alignment`: -EMSGSIZE when the message would
// become larger than the bus takes.
int Grow(const sd_bus_message* message, size_t alignment, uint64_t bytes);

// Whether a message with so many bytes of text in few pieces is small enough.
bool Fits(uint64_t text);

} // namespace bmcbus
