// An io_context's watch. asio's descriptor object closes what it was given, must not be touched
// once its context is gone, and in a forked child shares the reactor with the parent. So it gets a
// descriptor of its own for the read end, and the handler of the pending wait owns the
// registration: asio either runs the handler, in a living context, or destroys it together with the
// context. A wait that goes on after its registration serves the next one with the same context.

#include "threads/oneway_channel_internal.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <boost/system/system_error.hpp>

#include <cerrno>
#include <utility>

namespace infrautils
{

using channel::Load;

namespace
{

// asio's flag belongs to what both descriptors refer to.
void SetBlocking(int fd, bool blocking)
{
    const int flags = fcntl(fd, F_GETFL);
    static_cast<void>(fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK));
}

bool IsReadable(int fd)
{
    pollfd end{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&end, 1, 0) != 0;
}

} // namespace

struct OneWayChannel::Watch : std::enable_shared_from_this<Watch>
{
    Watch(OneWayChannel* owner, const boost::asio::io_context& where, int descriptorNumber) :
        home(owner), context(&where), channel(owner), fd(descriptorNumber)
    {
    }

    ~Watch();

    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    bool Inherited() const { return forks != channel::forks; }
    bool InForce() const { return channel != nullptr && !Inherited(); }

    void Again()
    {
        if (InForce())
        {
            channel->WaitForIO(shared_from_this());
        }
    }

    OneWayChannel* home; // whose list it may be on; under the operation mutex
    const boost::asio::io_context* context;
    OneWayChannel* channel; // null once the registration has ended
    int fd;
    // The channel's until then.
    std::unique_ptr<boost::asio::posix::stream_descriptor> descriptor;
    int waits = 0;          // that have not come back
    bool usedAgain = false; // its wait may have ended before
    Watch* nextIdle = nullptr;
    unsigned int forks = channel::forks;
};

OneWayChannel::Watch::~Watch()
{
    if (InForce())
    {
        channel->watch_ = nullptr;
        SetBlocking(channel->pipeFds[0], true);
        descriptor = std::move(channel->streamDescriptor);
    }
    else if (!Inherited())
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        Watch** place = home != nullptr ? &home->idleWatches_ : &nextIdle;
        while (*place != nullptr && *place != this)
        {
            place = &(*place)->nextIdle;
        }
        if (*place == this)
        {
            *place = nextIdle;
        }
    }
    if (waits > 0 || Inherited())
    {
        // No destructor: the context is going, or its reactor is the parent's, too.
        close(fd);
        operator delete(descriptor.release());
    }
}

// Null when there is none, or when it is just going.
std::shared_ptr<OneWayChannel::Watch>
OneWayChannel::TakeIdleWatch(const boost::asio::io_context& context)
{
    const std::lock_guard lock(oneWayChannelOperationMutex);
    for (Watch** place = &idleWatches_; *place != nullptr; place = &(*place)->nextIdle)
    {
        Watch* const watch = *place;
        if (watch->context == &context)
        {
            *place = std::exchange(watch->nextIdle, nullptr);
            return watch->weak_from_this().lock();
        }
    }
    return nullptr;
}

std::shared_ptr<OneWayChannel::Watch> OneWayChannel::NewWatch(boost::asio::io_context& context)
{
    auto descriptor = std::make_unique<boost::asio::posix::stream_descriptor>(context);
    auto watch = std::make_shared<Watch>(this, context, fcntl(pipeFds[0], F_DUPFD_CLOEXEC, 0));
    boost::system::error_code failed(errno, boost::system::system_category());
    if (watch->fd >= 0)
    {
        descriptor->assign(watch->fd, failed);
    }
    if (failed)
    {
        watch->channel = nullptr;
        close(watch->fd);
        throw boost::system::system_error(failed, "assign");
    }
    watch->descriptor = std::move(descriptor);
    return watch;
}

int OneWayChannel::RegisterIOContext(boost::asio::io_context& context, void* newContext,
                                     Function function)
{
    if (Type() != RegistrationType::None)
    {
        return _ReturnAlreadyRegistered();
    }
    std::shared_ptr<Watch> watch = TakeIdleWatch(context);
    const bool waits = watch != nullptr;
    if (waits)
    {
        watch->channel = this;
        watch->usedAgain = true;
        SetBlocking(pipeFds[0], false);
    }
    else
    {
        watch = NewWatch(context);
    }
    streamDescriptor = std::move(watch->descriptor);
    watch_ = watch.get();
    TakeOver(newContext, std::move(function));
    if (!waits)
    {
        WaitForIO(std::move(watch));
    }
    Publish(RegistrationType::IOContext);
    return channel::success;
}

void OneWayChannel::WaitForIO(std::shared_ptr<Watch> owner)
{
    ++owner->waits;
    streamDescriptor->async_wait(boost::asio::posix::stream_descriptor::wait_read,
                                 [watch = std::move(owner)](const boost::system::error_code& error)
                                 {
                                     --watch->waits;
                                     if (watch->InForce())
                                     {
                                         watch->channel->_PipeIOContexHandler(error, 0);
                                     }
                                 });
}

void OneWayChannel::_PipeIOContexHandler(const boost::system::error_code& error,
                                         unsigned long /*bytes*/)
{
    if (error)
    {
        CHANNEL_LOG(misuse, "Error in IOContext Read: %d", error.value());
        return;
    }
    if (watch_ == nullptr)
    {
        return;
    }
    const std::shared_ptr<Watch> watch = watch_->shared_from_this();
    // Another loop may have read what the wait is about before this one was registered again.
    if (!std::exchange(watch->usedAgain, false) || IsReadable(pipeFds[0]))
    {
        static_cast<void>(
            streamDescriptor->read_some(boost::asio::buffer(readBuffer, sizeof(readBuffer))));
    }
    // Waits again also when a function's exception passes. The channel itself may be gone by then.
    try
    {
        ProcessMBQueue(Load(userContext));
    }
    catch (...)
    {
        watch->Again();
        throw;
    }
    watch->Again();
}

// Leaves the wait to its context. The pipe blocks again, as it did before asio had it. Under the
// operation mutex.
void OneWayChannel::GiveUpWatch()
{
    Watch* const watch = std::exchange(watch_, nullptr);
    if (watch == nullptr)
    {
        return;
    }
    watch->descriptor = std::move(streamDescriptor);
    watch->channel = nullptr;
    if (watch->waits > 0)
    {
        watch->nextIdle = std::exchange(idleWatches_, watch);
    }
    SetBlocking(pipeFds[0], true);
}

void OneWayChannel::ForgetIdleWatches()
{
    while (idleWatches_ != nullptr)
    {
        idleWatches_->home = nullptr;
        idleWatches_ = std::exchange(idleWatches_->nextIdle, nullptr);
    }
}

} // namespace infrautils
