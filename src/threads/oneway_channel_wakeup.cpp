// Wake-ups. The pipe holds nothing but wake-ups, so a full pipe wakes the loop as surely as one
// more trigger would, and nobody ever has to block in the write.
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

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace infrautils
{

using channel::Drain;
using channel::Load;

constinit thread_local Drain* channel::Drain::current = nullptr;

namespace
{

// After so many triggers the room is looked up again, in case somebody else fills the pipe or
// makes it smaller.
constexpr int largestCredit = 256;

// How many triggers surely fit. A page is left out, since one that is read in part still takes the
// room of a whole one.
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

// Waits until the pipe takes a write, or so long (0: only looks). An error counts as writable: the
// write then reports it.
bool IsWritable(int fd, int milliseconds)
{
    pollfd end{.fd = fd, .events = POLLOUT, .revents = 0};
    int result = -1;
    do
    {
        result = poll(&end, 1, milliseconds);
    } while (result < 0 && errno == EINTR);
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

constexpr char trigger[] = {'R', '\0'};

// A write that a signal interrupts is repeated.
ssize_t Write(int fd, const char (&bytes)[2])
{
    ssize_t written = -1;
    do
    {
        written = write(fd, bytes, sizeof(bytes));
    } while (written < 0 && errno == EINTR);
    return written;
}

// Fails with EAGAIN where there is no room.
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

// The result for the caller. The line carries the name of TriggerReadPipeNoLock, which callers
// know.
int Result(ssize_t written)
{
    if (written > 0)
    {
        return channel::success;
    }
    CHANNEL_HEADER_LOG(failure, "TriggerReadPipeNoLock", "Write failed : %zd", written);
    return channel::writeFailed;
}

// Callers compile it into themselves. The library exports it as well, for which it has to be used.
[[gnu::used]] constexpr auto triggerReadPipe = &OneWayChannel::TriggerReadPipeNoLock;

} // namespace

// How many triggers are being written right now for which room was reserved.
int OneWayChannel::Reserved() const
{
    const unsigned int written = written_.load(std::memory_order_acquire);
    return static_cast<int>(reserved_.load(std::memory_order_relaxed) - written);
}

// Whether there surely is room for one more trigger; it is then kept for the caller, who writes it
// without the mutex.
inline bool OneWayChannel::ReserveRoom()
{
    if (credit_ == 0 && !FindRoom())
    {
        return false;
    }
    --credit_;
    // Nobody else counts it up meanwhile, so it need not be one operation.
    reserved_.store(reserved_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

// Looks up for how many more triggers there surely is room.
bool OneWayChannel::FindRoom()
{
    const Drain* const drain = Drain::Of(this);
    if (drain != nullptr && drain->pipeFull)
    {
        return false;
    }
    // In this order: a trigger that is written in between is counted twice, never not at all.
    const int reserved = Reserved();
    credit_ = std::clamp(SureRoom(pipeFds[1]) - reserved, 0, largestCredit);
    return credit_ != 0;
}

// Writes a trigger for which room was reserved. Needs no lock.
inline int OneWayChannel::WriteIntoRoom(const char (&bytes)[2])
{
    const ssize_t written = Write(pipeFds[1], bytes);
    written_.fetch_add(1, std::memory_order_release);
    return written > 0 ? channel::success : Result(written);
}

// Wakes the loop for a message that was just queued. Nothing may throw from here on: the message
// will run, and an exception would let the producer take away what it refers to.
[[gnu::hot]] int OneWayChannel::Wake(std::unique_lock<std::mutex>& lock) noexcept
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
    const bool crowded = mbQueue.size() > channel::mostQueued && !OnLoopThread();
    const int result = woken_ ? channel::success : TriggerOnce(lock);
    if (crowded && result == channel::success && (lock.owns_lock() || LockAgain(lock)))
    {
        ++waiting_;
        roomInQueue_.wait(
            lock, [this]
            { return mbQueue.size() <= channel::roomAgain || Type() == RegistrationType::None; });
        --waiting_;
    }
    return result;
}

// The mutex is free again when the trigger could be written without it.
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
        result =
            WriteIfRoom(trigger); // where there is no room, the pipe is full and wakes the loop
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
        if (Reserved() != 0)
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

// Tries to write a trigger for which no room could be reserved; noRoom_ tells whether it found
// none.
int OneWayChannel::WriteIfRoom(const char (&bytes)[2])
{
    Drain* const drain = Drain::Of(this);
    // Reserved room is other threads', so while there is any the pipe counts as full. It nearly is,
    // for no credit was left. (30720 threads that have reserved and not yet written would take all
    // the credit of an empty pipe of the usual 64 KiB, too.)
    noRoom_ = (drain != nullptr && drain->pipeFull) || Reserved() != 0;
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

} // namespace infrautils
