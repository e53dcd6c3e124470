#pragma once

// What the channel's sources share: how they log, their results, access to the fields, and what a
// thread that drains the queue knows about it.
//
// Functions through which every message passes are marked as hot, so that they lie side by side in
// the library: on one core producer and loop take turns every few messages, and each finds the
// caches full of what the other did.

#include "log.hpp"

#include <oneway_channel.hpp>

#include <atomic>
#include <cstdlib>
#include <utility>

// Callers filter by the file that a line names. It is the channel's, whichever source writes it; of
// the constructor, the destructor, Unregister and TriggerReadPipeNoLock the header.
#define CHANNEL_LOG(level, text, ...)                                                              \
    CHANNEL_LOG_AS(level, __func__, text __VA_OPT__(, ) __VA_ARGS__)
#define CHANNEL_LOG_AS(level, function, text, ...)                                                 \
    BMCBUS_LOG_IN("oneway_channel.cpp", level, bmcbus::log::librarySource, function,               \
                  text __VA_OPT__(, ) __VA_ARGS__)
#define CHANNEL_HEADER_LOG(level, function, text, ...)                                             \
    BMCBUS_LOG_IN("oneway_channel.hpp", level, bmcbus::log::librarySource, function,               \
                  text __VA_OPT__(, ) __VA_ARGS__)

namespace infrautils
{

namespace channel
{

// Results of the operations and the flat functions.
enum Result : int
{
    success = 0,
    processFailed = 1,
    alreadyRegistered = 2,
    notPossible = 3,
    pollerRefused = 4,
    registerFailed = 5,
    writeFailed = 6,
    readFailed = 7
};

// The registration's fields are read without a lock by design: plain in type, atomic in access.
template <class T>
T Load(const T& field)
{
    return std::atomic_ref(const_cast<T&>(field)).load(std::memory_order_acquire);
}

template <class T>
void Store(T& field, T value)
{
    std::atomic_ref(field).store(value, std::memory_order_release);
}

// How often the lineage of this process has forked. Only a forked child writes it, before it has
// threads: whoever finds another value than before runs in a child, where the channel is gone.
extern unsigned int forks;

// Releases a message and, if they are the channel's, its data.
inline void Discard(MBMessage* message)
{
    if (message->freeData)
    {
        std::free(message->data);
    }
    delete message;
}

// How many messages may wait before producers do, when triggers no longer count them: as many as a
// pipe of the usual 64 KiB has room for. They go on when a page less is left.
inline constexpr size_t mostQueued = 32768;
inline constexpr size_t roomAgain = mostQueued - 2048;

// A drain of the queue under way on this thread. Drains nest: a message's function may run a loop.
class Drain
{
  public:
    explicit Drain(const OneWayChannel* drained) : channel(drained), outer(current)
    {
        current = this;
    }

    ~Drain() { current = outer; }

    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

    // The one of this channel, or null.
    static Drain* Of(const OneWayChannel* channel)
    {
        return current != nullptr && current->channel == channel && !current->Orphaned() ? current
                                                                                         : nullptr;
    }

    // A message's function has forked, and this is the child.
    bool Orphaned() const { return forks != channel::forks; }

    bool pipeFull = false; // nobody else reads, so it stays full

  private:
    static constinit thread_local Drain* current;

    const OneWayChannel* channel;
    Drain* outer;
    unsigned int forks = channel::forks;
};

// The thread of the loop that is registered, if one is and its thread is known. Makes no channel.
bool LoopThread(pthread_t& tid);

} // namespace channel

inline RegistrationType OneWayChannel::Type() const
{
    return static_cast<RegistrationType>(channel::Load(registrationType));
}

// What the flat functions do beside the members: the registration that has no member function, its
// wake-up, and a post.
struct OneWayChannelFlat
{
    static int Post(OneWayChannel::Function&& function, void* data, unsigned long size,
                    bool freeData)
    {
        return OneWayChannel::GetInstance()->Post(std::move(function), data, size, freeData);
    }
    static void RegisterUserFD(int* fd, void* context, OneWayChannel::Function function);
    static int Process(int fd);
};

} // namespace infrautils
