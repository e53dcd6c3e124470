#include "threads/oneway_channel_internal.hpp"

#include <czmq.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>

// Messages and wake-ups. The queue is the data, the pipe the wake-up: a full pipe wakes the loop as
// surely as one more trigger would. So nobody ever blocks in the write.
//
// Usually a producer knows that its trigger fits, and writes it after it has released the mutex: on
// one processor the loop's thread may run at once then, and needs the mutex itself. Where room is
// not certain the write end is made non-blocking for one write, under the mutex; a producer that
// finds no room then waits in poll() without the mutex, and the loop's own thread goes on without a
// trigger.

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

bool IsWritable(int fd, int milliseconds)
{
    pollfd end{.fd = fd, .events = POLLOUT, .revents = 0};
    // An error is for the write to find.
    return poll(&end, 1, milliseconds) != 0;
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

constexpr char trigger[] = {'R', '\0'};

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
    if (Type() == RegistrationType::None)
    {
        CHANNEL_LOG(misuse, "the receive fd is not registered, please call Register");
        return channel::notPossible;
    }
    auto message =
        std::make_unique<MBMessage>(MBMessage{std::move(function), data, size, freeData});
    std::list<MBMessage*> added(1, message.get());
    std::unique_lock lock(oneWayChannelOperationMutex);
    mbQueue.splice(mbQueue.end(), added);
    static_cast<void>(message.release());
    if (ReserveRoom())
    {
        lock.unlock();
        return WriteIntoRoom(trigger);
    }
    const int result = WriteIfRoom(trigger);
    return noRoom_ && !OnLoopThread() ? WaitForRoomAndTrigger(lock) : result;
}

int OneWayChannel::Execute(void* data, unsigned long size, bool freeData)
{
    // Without a registration there is none, and another thread may be about to set it.
    if (Type() == RegistrationType::None || !defaultFunction)
    {
        CHANNEL_LOG(misuse, "Default function handler not registered");
        return channel::notPossible;
    }
    return Execute(defaultFunction, data, size, freeData);
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
        lock.lock();
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
    const ssize_t written = write(pipeFds[1], bytes, sizeof(bytes));
    reserved_.fetch_sub(1, std::memory_order_release);
    return Result(written);
}

// Where no room could be reserved.
int OneWayChannel::WriteIfRoom(const char (&bytes)[2])
{
    Drain* const drain = Drain::Of(this);
    // Neither into somebody else's room. Then the pipe is as good as full.
    noRoom_ =
        (drain != nullptr && drain->pipeFull) || reserved_.load(std::memory_order_acquire) != 0;
    if (noRoom_)
    {
        return channel::success;
    }
    ssize_t written = 0;
    {
        const NonBlocking now(pipeFds[1]);
        errno = 0;
        written = write(pipeFds[1], bytes, sizeof(bytes));
        noRoom_ = written < 0 && errno == EAGAIN && !IsWritable(pipeFds[1], 0);
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

void OneWayChannel::_PipeIOEventReceive(sdeventplus::source::IO& /*source*/, int fd,
                                        unsigned int /*events*/, void* context)
{
    const ssize_t bytes = read(fd, readBuffer, sizeof(readBuffer));
    if (bytes < 0)
    {
        CHANNEL_LOG(misuse, "Error in read : %zd", bytes);
        return;
    }
    ProcessMBQueue(context);
}

int OneWayChannel::_ReadFromPipe(int fd)
{
    const ssize_t bytes = read(fd, readBuffer, sizeof(readBuffer));
    if (bytes < 0)
    {
        CHANNEL_LOG(misuse, "Error in zloop pipe read : %zd", bytes);
        return channel::readFailed;
    }
    ProcessMBQueue(Load(userContext));
    return channel::success;
}

int OneWayChannelFlat::Process(int fd)
{
    OneWayChannel* const self = OneWayChannel::GetInstance();
    return self->Type() == RegistrationType::UserFD ? self->_ReadFromPipe(fd)
                                                    : channel::notPossible;
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
        ~Next() { std::for_each(begin(), end(), channel::Discard); }
    } next;
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        if (mbQueue.empty())
        {
            return false;
        }
        next.splice(next.end(), mbQueue, mbQueue.begin());
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
    if (!mbQueue.empty())
    {
        static_cast<void>(TriggerReadPipeNoLock());
    }
}
catch (const std::system_error&)
{
    // No lock, no wake-up; the exception under way is the one to hand on.
}

int OneWayChannel::_PipeZLoopReceive(zloop_t* /*loop*/, zmq_pollitem_t* item, void* /*arg*/)
{
    return _ReadFromPipe(item->fd);
}

int _OneWayChannelZLoopFunctionHandler(zloop_t* loop, zmq_pollitem_t* item, void* arg)
{
    // A forked child's copy of the reactor still knows the parent's channel.
    auto* const self = static_cast<OneWayChannel*>(arg);
    return self == Load(OneWayChannel::instance) ? self->_PipeZLoopReceive(loop, item, arg) : 0;
}

} // namespace infrautils
