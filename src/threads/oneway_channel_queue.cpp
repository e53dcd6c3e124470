// The queue of messages: a producer puts one in and wakes the loop (oneway_channel_wakeup.cpp); the
// loop's thread takes one out at a time and runs it without the mutex, until none is left.

#include "threads/oneway_channel_internal.hpp"
#include "threads/thread_exit.hpp"

#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>

namespace infrautils
{

using channel::Drain;
using channel::Store;

namespace
{

// The message while it runs.
struct Running
{
    explicit Running(std::list<MBMessage*>& queue) : origin(queue) {}
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    ~Running()
    {
        if (message == nullptr)
        {
            return;
        }
        if (forks == channel::forks)
        {
            channel::Discard(message);
            return;
        }
        KeepInChild();
    }

    // In a child that the function forked, what the message holds is the parent's and is not
    // released. It goes back to where whoever looks for lost memory finds it.
    void KeepInChild() noexcept
    try
    {
        origin.push_back(message);
    }
    catch (const std::bad_alloc&)
    {
        // Then it is lost, which nobody else notices.
    }

    MBMessage* message = nullptr;

  private:
    std::list<MBMessage*>& origin;
    unsigned int forks = channel::forks;
};

} // namespace

int OneWayChannel::Execute(Function function, void* data, unsigned long size, bool freeData)
{
    return Post(std::move(function), data, size, freeData);
}

// The function by reference: it is moved once, into its message.
[[gnu::hot]] int OneWayChannel::Post(Function&& function, void* data, unsigned long size,
                                     bool freeData)
{
    const bmcbus::NoCancellation wholePost; // a queued message without its trigger would lie there
    if (Type() != RegistrationType::None)
    {
        std::unique_ptr<MBMessage> message(
            new MBMessage{std::move(function), data, size, freeData});
        std::unique_lock lock(oneWayChannelOperationMutex);
        // Asked again: only under the mutex can the registration not end meanwhile.
        if (Type() != RegistrationType::None)
        {
            mbQueue.push_back(message.get());
            static_cast<void>(message.release());
            return Wake(lock);
        }
    }
    CHANNEL_LOG_AS(misuse, "Execute", "the receive fd is not registered, please call Register");
    return channel::notPossible;
}

int OneWayChannel::Execute(void* data, unsigned long size, bool freeData)
{
    const bmcbus::NoCancellation wholePost;
    // The type is asked first: before a registration is in place another thread may be writing the
    // function.
    if (Type() == RegistrationType::None || !defaultFunction)
    {
        CHANNEL_LOG(misuse, "Default function handler not registered");
        return channel::notPossible;
    }
    return Execute(defaultFunction, data, size, freeData);
}

// A message's function may fork. In the child this channel is the parent's and is not to be touched
// any more, so after each function the drain asks in which process it is.
[[gnu::hot]] void OneWayChannel::ProcessMBQueue(void* context)
{
    const Drain drain(this);
    Store(drainTid_, pthread_self());
    try
    {
        while (RunNext(context) && !drain.Orphaned())
        {
        }
    }
    catch (...)
    {
        if (!drain.Orphaned())
        {
            WakeAgain();
        }
        throw;
    }
}

// Runs the oldest message; false when there is none. Its lines carry the name of ProcessMBQueue,
// which callers know.
[[gnu::hot]] bool OneWayChannel::RunNext(void* context)
{
    Running running(mbQueue);
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        if (mbQueue.empty())
        {
            woken_ = false;
            return false;
        }
        running.message = mbQueue.front();
        mbQueue.pop_front();
        if (mbQueue.size() == channel::roomAgain)
        {
            LetProducersOn();
        }
    }
    const MBMessage& message = *running.message;
    try
    {
        static_cast<void>(message.function(context, message.data, message.size));
    }
    catch (const std::exception& e)
    {
        CHANNEL_LOG_AS(failure, "ProcessMBQueue", "Error in ProcessMBQueue : %s", e.what());
    }
    return true;
}

// For a drain that an exception ends: one read may have taken the triggers of messages that are
// still queued.
void OneWayChannel::WakeAgain() noexcept
try
{
    const std::lock_guard lock(oneWayChannelOperationMutex);
    woken_ = !mbQueue.empty();
    if (woken_)
    {
        static_cast<void>(TriggerReadPipeNoLock());
    }
}
catch (const std::system_error&)
{
    // Without the lock there is no wake-up. The exception that is under way is the one to hand on.
}

} // namespace infrautils
