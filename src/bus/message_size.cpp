// Counts a message's bytes as the marshalling rules lay them out; sd-bus does not tell.

#include "bus/message_size.hpp"

#include <bmcbus/connection.hpp>

#include <algorithm>

namespace bmcbus
{
namespace
{

constexpr uint32_t stockSystemBus = 32U << 20U;
constexpr uint32_t largestMessage = 128U << 20U; // that the protocol allows

} // namespace

constinit std::atomic<uint32_t> messageLimit = stockSystemBus;

thread_local constinit Growing growing;

void SetMessageLimit(uint32_t bytes)
{
    messageLimit.store(std::min(bytes, largestMessage), std::memory_order_relaxed);
}

} // namespace bmcbus
