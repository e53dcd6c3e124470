// Messages and wake-ups. The queue is the data, the pipe the wake-up: a full pipe wakes the loop as
// surely as one more trigger would, so nobody ever blocks in the write.
//
// Usually a producer knows that its trigger fits, and writes it after it has released the mutex: on
// one processor the loop's thread may run at once then, and needs the mutex itself. Where room is
// not certain the write end is made non-blocking for one write, under the mutex; a producer that
// finds no room then waits in poll() without the mutex, and the loop's own thread goes on without a
// trigger.
//
// A registration that is woken once for a burst gets a trigger only when none is on its way: the
// queue is drained until it is found empty, so what comes before is seen without another. The pipe
// then says nothing about how much waits; the queue itself is kept to as many messages.

#include "threads/oneway_channel_internal.hpp"
#include "threads/thread_exit.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace infrautils
{

using channel::Load;
using channel::Store;

namespace
{

// After so many triggers the room is looked up again, in case somebody else fills the pipe or
// makes it smaller.
constexpr int largestCredit = 256;

// Triggers that surely fit. A page that is read in part still takes its place.
int SureRoom(int fd)
{
    static const int page = static_cast<int>(sysconf(_SC_PAGESIZE));
    int queued = 0;
    if (ioctl(fd, FIONREAD, &queued) != 0)
    {
        return 0;
    }
    return (fcntl(fd, F_GETPIPE_SZ) - page - queued) / 2;
}

// Looks at once, or waits so long and looks then. An error is for the write to find.
bool IsWritable(int fd, int milliseconds)
{
    pollfd end{.fd = fd, .events = POLLOUT, .revents = 0};
    int result = -1;
    do
    {
        result = poll(&end, 1, milliseconds);
    } while (result < 0 && errno == EINTR); // says nothing about the pipe
    return result != 0;
}

// Makes writes to a full pipe fail while it lives. The flag belongs to the write end alone.
class NonBlocking
{
  public:
    explicit NonBlocking(int descriptor) : fd(descriptor), flags(fcntl(fd, F_GETFL))
    {
        static_cast<void>(fcntl(fd, F_SETFL, flags | O_NONBLOCK));
    }

    ~NonBlocking() { static_cast<void>(fcntl(fd, F_SETFL, flags)); }

    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

  private:
    int fd;
    int flags;
};

// A drain under way on this thread.
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

constinit thread_local Drain* Drain::current = nullptr;

// What a pipe of the usual 64 KiB holds triggers for, and where waiting producers go on: a page
// less.
constexpr size_t mostQueued = 32768;
constexpr size_t roomAgain = mostQueued - 2048;

constexpr char trigger[] = {'R', '\0'};

// A signal is no failure.
ssize_t Write(int fd, const char (&bytes)[2])
{
    ssize_t written = -1;
    do
    {
        errno = 0;
        written = write(fd, bytes, sizeof(bytes));
    } while (written < 0 && errno == EINTR);
    return written;
}

// Does not wait for room.
ssize_t WriteNow(int fd, const char (&bytes)[2])
{
    const NonBlocking now(fd);
    return Write(fd, bytes);
}

bool LockAgain(std::unique_lock<std::mutex>& lock) noexcept
{
    try
    {
        lock.lock();
        return true;
    }
    catch (const std::system_error&)
    {
        return false;
    }
}

// Of the write of a trigger. Logs as the member that did it first.
int Result(ssize_t written)
{
    if (written > 0)
    {
        return channel::success;
    }
    CHANNEL_HEADER_LOG(failure, "TriggerReadPipeNoLock", "Write failed : %zd", written);
    return channel::writeFailed;
}

// Inline for its callers, and still a function that the library has.
[[gnu::used]] constexpr auto triggerReadPipe = &OneWayChannel::TriggerReadPipeNoLock;

} // namespace

void channel::Discard(MBMessage* message)
{
    if (message->freeData)
    {
        std::free(message->data);
    }
    delete message;
}

int OneWayChannel::Execute(Function function, void* data, unsigned long size, bool freeData)
{
    const bmcbus::NoCancellation wholePost; // message and trigger go together
    if (Type() != RegistrationType::None)
    {
        auto message =
            std::make_unique<MBMessage>(MBMessage{std::move(function), data, size, freeData});
        std::list<MBMessage*> added(1, message.get());
        std::unique_lock lock(oneWayChannelOperationMutex);
        // Again: with the lock there is no end of the registration in between.
        if (Type() != RegistrationType::None)
        {
            mbQueue.splice(mbQueue.end(), added);
            static_cast<void>(message.release());
            return Wake(lock);
        }
    }
    CHANNEL_LOG(misuse, "the receive fd is not registered, please call Register");
    return channel::notPossible;
}

int OneWayChannel::Execute(void* data, unsigned long size, bool freeData)
{
    const bmcbus::NoCancellation wholePost;
    // Without a registration there is none, and another thread may be about to set it.
    if (Type() == RegistrationType::None || !defaultFunction)
    {
        CHANNEL_LOG(misuse, "Default function handler not registered");
        return channel::notPossible;
    }
    return Execute(defaultFunction, data, size, freeData);
}

// For a message that was just queued. From then on nothing may throw: it will run, and what it
// refers to must still be there.
int OneWayChannel::Wake(std::unique_lock<std::mutex>& lock) noexcept
{
    if (wakeOnce_)
    {
        return WakeOnce(lock);
    }
    if (ReserveRoom())
    {
        lock.unlock();
        return WriteIntoRoom(trigger);
    }
    const int result = WriteIfRoom(trigger);
    return noRoom_ && !OnLoopThread() ? WaitForRoomAndTrigger(lock) : result;
}

int OneWayChannel::WakeOnce(std::unique_lock<std::mutex>& lock) noexcept
{
    const bool crowded = mbQueue.size() > mostQueued && !OnLoopThread();
    const int result = woken_ ? channel::success : TriggerOnce(lock);
    if (crowded && result == channel::success && (lock.owns_lock() || LockAgain(lock)))
    {
        ++waiting_;
        roomInQueue_.wait(
            lock,
            [this] { return mbQueue.size() <= roomAgain || Type() == RegistrationType::None; });
        --waiting_;
    }
    return result;
}

// The write goes without the lock, as in any post.
int OneWayChannel::TriggerOnce(std::unique_lock<std::mutex>& lock)
{
    woken_ = true;
    int result = channel::success;
    if (ReserveRoom())
    {
        lock.unlock();
        result = WriteIntoRoom(trigger);
    }
    else
    {
        result = WriteIfRoom(trigger); // a full pipe wakes as surely
    }
    if (result != channel::success && (lock.owns_lock() || LockAgain(lock)))
    {
        woken_ = false; // the next message tries again
    }
    return result;
}

void OneWayChannel::LetProducersOn()
{
    if (waiting_ != 0)
    {
        roomInQueue_.notify_all();
    }
}

int OneWayChannel::WakeOncePerBurst()
{
    const std::lock_guard lock(oneWayChannelOperationMutex);
    if (Type() == RegistrationType::None)
    {
        CHANNEL_LOG(misuse, "the receive fd is not registered, please call Register");
        return channel::notPossible;
    }
    wakeOnce_ = true;
    return channel::success;
}

int OneWayChannel::WaitForRoomAndTrigger(std::unique_lock<std::mutex>& lock)
{
    static constexpr int recheckMilliseconds = 100;
    int result = channel::success;
    // Nobody drains a pipe whose registration has ended; its triggers wake the next one.
    while (noRoom_ && Type() != RegistrationType::None)
    {
        lock.unlock();
        static_cast<void>(IsWritable(pipeFds[1], recheckMilliseconds));
        if (reserved_.load(std::memory_order_relaxed) != 0)
        {
            sched_yield();
        }
        if (!LockAgain(lock))
        {
            return channel::success; // the triggers of the full pipe wake the loop
        }
        result = TriggerReadPipeNoLock();
    }
    return result;
}

// Whether there is room for one more trigger, which is then the caller's.
bool OneWayChannel::ReserveRoom()
{
    if (credit_ == 0)
    {
        const Drain* const drain = Drain::Of(this);
        if (drain != nullptr && drain->pipeFull)
        {
            return false;
        }
        // In this order: a trigger written meanwhile counts twice.
        const int reserved = reserved_.load(std::memory_order_acquire);
        credit_ = std::clamp(SureRoom(pipeFds[1]) - reserved, 0, largestCredit);
    }
    if (credit_ == 0)
    {
        return false;
    }
    --credit_;
    reserved_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

// Needs no lock.
int OneWayChannel::WriteIntoRoom(const char (&bytes)[2])
{
    const ssize_t written = Write(pipeFds[1], bytes);
    reserved_.fetch_sub(1, std::memory_order_release);
    return Result(written);
}

// Where no room could be reserved.
int OneWayChannel::WriteIfRoom(const char (&bytes)[2])
{
    Drain* const drain = Drain::Of(this);
    // Neither into somebody else's room. While there is some the pipe is taken to be full. That is
    // so only as long as fewer threads than (capacity - page) / 2 (30720 with the usual 64 KiB) are
    // between reserving and having written: credit is given for half of what is free, a page less.
    noRoom_ =
        (drain != nullptr && drain->pipeFull) || reserved_.load(std::memory_order_acquire) != 0;
    if (noRoom_)
    {
        return channel::success;
    }
    ssize_t written = WriteNow(pipeFds[1], bytes);
    if (written < 0 && errno == EAGAIN)
    {
        noRoom_ = !IsWritable(pipeFds[1], 0);
        if (!noRoom_)
        {
            written = WriteNow(pipeFds[1], bytes); // some was made since
        }
    }
    if (noRoom_ && drain != nullptr)
    {
        drain->pipeFull = true;
    }
    return noRoom_ ? channel::success : Result(written);
}

int OneWayChannel::WriteTrigger(const char (&bytes)[2])
{
    noRoom_ = false;
    return ReserveRoom() ? WriteIntoRoom(bytes) : WriteIfRoom(bytes);
}

bool OneWayChannel::OnLoopThread() const
{
    return pthread_equal(Load(drainTid_), pthread_self()) != 0 || Drain::Of(this) != nullptr;
}

// After each function the process may be a forked child's: then this channel is gone.
void OneWayChannel::ProcessMBQueue(void* context)
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

// False when there was none. Logs as the member that it does the work of.
bool OneWayChannel::RunNext(void* context)
{
    struct Next : std::list<MBMessage*>
    {
        explicit Next(std::list<MBMessage*>& from) : origin(from) {}
        ~Next()
        {
            if (forks == channel::forks)
            {
                std::for_each(begin(), end(), channel::Discard);
                return;
            }
            // In a child that the function forked: what the message holds is the parent's.
            origin.splice(origin.end(), *this);
        }
        std::list<MBMessage*>& origin;
        unsigned int forks = channel::forks;
    } next(mbQueue);
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        if (mbQueue.empty())
        {
            woken_ = false;
            return false;
        }
        next.splice(next.end(), mbQueue, mbQueue.begin());
        if (mbQueue.size() == roomAgain)
        {
            LetProducersOn();
        }
    }
    MBMessage& message = *next.front();
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

// The triggers of what is still queued may have been read already.
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
    // No lock, no wake-up; the exception under way is the one to hand on.
}

} // namespace infrautils
