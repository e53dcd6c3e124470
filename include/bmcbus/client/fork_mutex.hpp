#pragma once

/**
 * @file
 * A mutex that outlives a fork(). For generated headers, which include next to nothing.
 */

#include <bmcbus/export.h>

#include <cstdint>
#include <mutex>

namespace bmcbus::client
{

/**
 * A mutex that nobody holds in a forked child, whoever held it in the parent.
 *
 * It keeps calls apart; data under it could be half changed in the child.
 */
class BMCBUS_EXPORT ForkMutex
{
  public:
    void lock();
    void unlock() { mutex_.unlock(); }

  private:
    std::mutex mutex_;
    uint32_t generation_ = 0; ///< of the process that made the mutex as it is; used atomically
};

} // namespace bmcbus::client
