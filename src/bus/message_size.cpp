// Counts a message's bytes as the marshalling rules lay them out; sd-bus does not tell.

#include "bus/message_size.hpp"

#include <bmcbus/connection.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace bmcbus
{
namespace
{

constexpr uint32_t stockSystemBus = 32U << 20U;
constexpr uint32_t largestMessage = 128U << 20U; // that the protocol allows

constinit std::atomic<uint32_t> limit = stockSystemBus;

// Fixed part, signature, sender, and the field codes with their padding.
constexpr uint64_t header = 1024;

struct Growing
{
    const sd_bus_message* message = nullptr;
    uint64_t bytes = 0;
};

thread_local constinit Growing growing;

} // namespace

void SetMessageLimit(uint32_t bytes)
{
    limit.store(std::min(bytes, largestMessage), std::memory_order_relaxed);
}

void StartMessage(const sd_bus_message* message, uint64_t names)
{
    growing = {message, (header + names + 7) / 8 * 8};
}

uint64_t MessageSize()
{
    return growing.bytes;
}

void ContinueMessage(const sd_bus_message* message, uint64_t size)
{
    growing = {message, size};
}

int Grow(const sd_bus_message* message, size_t alignment, uint64_t bytes)
{
    if (growing.message != message)
    {
        return 0;
    }
    growing.bytes = (growing.bytes + alignment - 1) / alignment * alignment + bytes;
    return growing.bytes <= limit.load(std::memory_order_relaxed) ? 0 : -EMSGSIZE;
}

bool Fits(uint64_t text)
{
    return header + text <= limit.load(std::memory_order_relaxed);
}

} // namespace bmcbus
