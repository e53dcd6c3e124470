#include "threads/oneway_channel_internal.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <boost/system/system_error.hpp>

#include <cerrno>
#include <utility>

// An io_context's watch. asio's descriptor object closes what it was given, must not be touched
// once its context is gone, and in a forked child shares the reactor with the parent. So it gets a
// descriptor of its own for the read end, and the handler of the pending wait owns the
// registration: asio either runs the handler, in a living context, or destroys it together with the
// context.

namespace infrautils
{

using channel::Load;

namespace
{

// asio's flag belongs to what both descriptors refer to.
void MakeBlocking(int fd)
{
    static_cast<void>(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK));
}

} // namespace

struct OneWayChannel::Watch : std::enable_shared_from_this<Watch>
{
    Watch(OneWayChannel* owner, int descriptorNumber) : channel(owner), fd(descriptorNumber) {}

    ~Watch();

    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void Again()
    {
        if (channel != nullptr)
        {
            channel->WaitForIO(shared_from_this());
        }
    }

    OneWayChannel* channel; // null once the registration has ended
    int fd;
    // The channel's until then.
    std::unique_ptr<boost::asio::posix::stream_descriptor> descriptor;
    int waits = 0; // that have not come back
    bool inherited = false;
};

OneWayChannel::Watch::~Watch()
{
    if (channel != nullptr)
    {
        channel->watch_ = nullptr;
        MakeBlocking(channel->pipeFds[0]);
        descriptor = std::move(channel->streamDescriptor);
    }
    if (waits > 0 || inherited)
    {
        // No destructor: the context is going, or its reactor is the parent's, too.
        close(fd);
        operator delete(descriptor.release());
    }
}

int OneWayChannel::RegisterIOContext(boost::asio::io_context& context, void* newContext,
                                     Function function)
{
    if (Type() != RegistrationType::None)
    {
        return _ReturnAlreadyRegistered();
    }
    auto descriptor = std::make_unique<boost::asio::posix::stream_descriptor>(context);
    auto watch = std::make_shared<Watch>(this, fcntl(pipeFds[0], F_DUPFD_CLOEXEC, 0));
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
    streamDescriptor = std::move(descriptor);
    watch_ = watch.get();
    TakeOver(newContext, std::move(function));
    WaitForIO(std::move(watch));
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
                                     if (watch->channel != nullptr)
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
    static_cast<void>(
        streamDescriptor->read_some(boost::asio::buffer(readBuffer, sizeof(readBuffer))));
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

// Leaves the wait to its context. The pipe blocks again, as it did before asio had it; in a child
// the parent's asio still has it.
void OneWayChannel::GiveUpWatch(bool inherited)
{
    if (watch_ == nullptr)
    {
        return;
    }
    watch_->inherited = inherited;
    watch_->descriptor = std::move(streamDescriptor);
    std::exchange(watch_, nullptr)->channel = nullptr;
    if (!inherited)
    {
        MakeBlocking(pipeFds[0]);
    }
}

} // namespace infrautils
