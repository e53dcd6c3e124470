// The loops that drive the channel, but for asio's: how each comes to watch the pipe, what it calls
// then, and how a registration of any kind ends.

#include "threads/oneway_channel_internal.hpp"

#include <czmq.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

// The library does not bring CZMQ: who has a zloop has linked it, and in all other programs these
// are null.
#pragma weak zloop_poller
#pragma weak zloop_poller_end

namespace infrautils
{

using channel::Load;
using channel::Store;

namespace
{

zmq_pollitem_t PollItem(int fd)
{
    return {.socket = nullptr, .fd = fd, .events = ZMQ_POLLIN, .revents = 0};
}

} // namespace

OneWayChannel::~OneWayChannel()
{
    CHANNEL_HEADER_LOG(
        misuse, __func__,
        "Destructor. fork happened? (NOT Recommended to fork with multiple threads)");
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        GiveUpWatch();
        ForgetIdleWatches();
    }
    ioSource.reset();
    defaultFunction = nullptr;
    std::for_each(mbQueue.begin(), mbQueue.end(), channel::Discard);
    close(pipeFds[0]);
    close(pipeFds[1]);
}

int OneWayChannel::RegisterEventLoop(sdeventplus::Event& event, void* context, Function function)
{
    if (Type() != RegistrationType::None)
    {
        return _ReturnAlreadyRegistered();
    }
    ioSource.reset(); // a loop takes a descriptor once
    ioSource = std::make_unique<sdeventplus::source::IO>(
        event, pipeFds[0], EPOLLIN,
        [this, context](sdeventplus::source::IO& source, int fd, uint32_t events)
        { _PipeIOEventReceive(source, fd, events, context); });
    TakeOver(context, std::move(function));
    Publish(RegistrationType::EventLoop);
    return channel::success;
}

int OneWayChannel::RegisterZLoop(zloop_t* loop, void* context, Function function)
{
    if (Type() != RegistrationType::None)
    {
        return _ReturnAlreadyRegistered();
    }
    zmq_pollitem_t item = PollItem(pipeFds[0]);
    int result = -1;
    if (zloop_poller != nullptr && zloop_poller_end != nullptr)
    {
        zloop_poller_end(loop, &item); // left by a registration that another loop took the place of
        result = zloop_poller(loop, &item, _OneWayChannelZLoopFunctionHandler, this);
    }
    if (result != 0)
    {
        CHANNEL_LOG(error, "Registering pipe to poller failed : %d", result);
        return channel::pollerRefused;
    }
    registeredZLoop = loop;
    TakeOver(context, std::move(function));
    Publish(RegistrationType::ZLoop);
    return channel::success;
}

void OneWayChannelFlat::RegisterUserFD(int* fd, void* context, OneWayChannel::Function function)
{
    OneWayChannel* const self = OneWayChannel::GetInstance();
    if (pthread_equal(Load(self->loopTid), pthread_self()) != 0)
    {
        self->EndZLoopWatch();
    }
    self->registeredZLoop = nullptr; // another thread's must be left alone, and may go at any time
    self->TakeOver(context, std::move(function));
    Store(self->registrationType, static_cast<int>(RegistrationType::UserFD));
    *fd = self->pipeFds[0];
}

void OneWayChannel::EndZLoopWatch()
{
    if (registeredZLoop != nullptr)
    {
        zmq_pollitem_t item = PollItem(pipeFds[0]);
        zloop_poller_end(registeredZLoop, &item);
        registeredZLoop = nullptr;
    }
}

void OneWayChannel::Unregister()
{
    Function ended; // the caller's code; goes without the lock
    const std::lock_guard lock(oneWayChannelOperationMutex);
    CHANNEL_HEADER_LOG(trace, __func__, "enter");
    const RegistrationType type = Type();
    if (type == RegistrationType::None)
    {
        CHANNEL_HEADER_LOG(trace, __func__, "not registered");
        return;
    }
    if (type == RegistrationType::ZLoop)
    {
        CHANNEL_HEADER_LOG(trace, __func__, "unregister zloop");
        EndZLoopWatch();
    }
    else if (type == RegistrationType::EventLoop)
    {
        CHANNEL_HEADER_LOG(trace, __func__, "unregister sd_event");
    }
    // Also what a self-made poll loop took the place of.
    ioSource.reset();
    GiveUpWatch();
    Store(registrationType, static_cast<int>(RegistrationType::None));
    Store(userContext, static_cast<void*>(nullptr));
    ended.swap(defaultFunction);
    Store(loopTidValid, false);
    wakeOnce_ = false;
    LetProducersOn();
    CHANNEL_HEADER_LOG(trace, __func__, "leave");
}

[[gnu::hot]] void OneWayChannel::_PipeIOEventReceive(sdeventplus::source::IO& /*source*/, int fd,
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

[[gnu::hot]] int OneWayChannel::_ReadFromPipe(int fd)
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
