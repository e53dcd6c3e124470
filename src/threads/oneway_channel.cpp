#include <oneway_channel.hpp>

#include "threads/oneway_channel_internal.hpp"
#include "threads/threadfunnel_internal.hpp"

#include <czmq.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>

// The channel's life: one per process, one registration at a time, and what becomes of it in a
// forked child. Messages and wake-ups are in oneway_channel_queue.cpp.

namespace infrautils
{

using channel::Load;
using channel::Store;

constinit std::mutex oneWayChannelOperationMutex;
constinit std::mutex OneWayChannel::initCriticalSection;
constinit OneWayChannel* OneWayChannel::instance = nullptr;
constinit unsigned int channel::forks = 0;

namespace
{

zmq_pollitem_t PollItem(int fd)
{
    return {.socket = nullptr, .fd = fd, .events = ZMQ_POLLIN, .revents = 0};
}

// What stays of a parent's channel in a child: its place, since an inherited zloop still has the
// address, and the watch of an sd-event loop. Dropping it here could end the parent's, with which
// it shares the epoll instance: sd-event learns of the fork from a handler of its own, which may
// run after this one. Another thread may have been changing the loop's lists, too.
struct Grave
{
    Grave* older;
    sdeventplus::source::IO* watch;
};
static_assert(sizeof(Grave) <= sizeof(OneWayChannel) && alignof(Grave) <= alignof(OneWayChannel));

constinit Grave* graves = nullptr;

// A child that was forked while another thread installed the handlers may install them again.
constinit thread_local unsigned int handlersEntered = 0;

} // namespace

OneWayChannel::OneWayChannel() :
    registrationType(0),
    userContext(nullptr),
    loopTid(),
    loopTidValid(false),
    registeredZLoop(nullptr),
    drainTid_()
{
    const int result = pipe(pipeFds);
    if (result != 0)
    {
        CHANNEL_HEADER_LOG(failure, __func__, "Pipe creation failed : %d", result);
        throw std::runtime_error("Error in pipe creation OneWayChannel");
    }
}

OneWayChannel::~OneWayChannel()
{
    CHANNEL_HEADER_LOG(
        misuse, __func__,
        "Destructor. fork happened? (NOT Recommended to fork with multiple threads)");
    GiveUpWatch(true);
    ioSource.reset();
    defaultFunction = nullptr;
    std::for_each(mbQueue.begin(), mbQueue.end(), channel::Discard);
    close(pipeFds[0]);
    close(pipeFds[1]);
}

OneWayChannel* OneWayChannel::GetInstance()
{
    if (OneWayChannel* made = Load(instance))
    {
        return made;
    }
    // Before the lock: registering handlers waits for a fork() under way, and that for the lock.
    InstallForkHandlers();
    const std::lock_guard lock(initCriticalSection);
    if (instance == nullptr)
    {
        Store(instance, new OneWayChannel);
    }
    return instance;
}

void OneWayChannel::InstallForkHandlers()
{
    static constinit pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once,
                 [] { static_cast<void>(pthread_atfork(ForkPrepare, ForkParent, ForkChild)); });
}

void OneWayChannel::ForkPrepare()
{
    if (handlersEntered++ == 0)
    {
        // A send over the channel posts while it holds the funnel's lock.
        bmcbus::funnel::HoldSends();
        initCriticalSection.lock();
        oneWayChannelOperationMutex.lock();
    }
}

void OneWayChannel::ForkParent()
{
    if (--handlersEntered == 0)
    {
        oneWayChannelOperationMutex.unlock();
        initCriticalSection.unlock();
        bmcbus::funnel::ReleaseSends();
    }
}

void OneWayChannel::ForkChild()
{
    ForkParent();
    if (handlersEntered != 0)
    {
        return;
    }
    bmcbus::funnel::BeginInChild();
    ++channel::forks;
    OneWayChannel* const inherited = instance;
    if (inherited == nullptr)
    {
        return;
    }
    Store(instance, static_cast<OneWayChannel*>(nullptr));
    sdeventplus::source::IO* const watch = inherited->ioSource.release();
    inherited->~OneWayChannel();
    graves = new (static_cast<void*>(inherited)) Grave{.older = graves, .watch = watch};
}

RegistrationType OneWayChannel::Type() const
{
    return static_cast<RegistrationType>(Load(registrationType));
}

int OneWayChannel::_ReturnAlreadyRegistered()
{
    switch (Type())
    {
        case RegistrationType::EventLoop:
            CHANNEL_LOG(error, "Event Loop registration already done");
            break;
        case RegistrationType::ZLoop:
            CHANNEL_LOG(error, "zloop registration already done");
            break;
        case RegistrationType::IOContext:
            CHANNEL_LOG(error, "io_context already done");
            break;
        case RegistrationType::UserFD:
            CHANNEL_LOG(error, "User Fetched FD and registered already");
            break;
        case RegistrationType::None:
        default:
            CHANNEL_LOG(error, "Already registered %d", Load(registrationType));
            break;
    }
    return channel::alreadyRegistered;
}

void OneWayChannel::TakeOver(void* context, Function function)
{
    Store(userContext, context);
    defaultFunction = std::move(function);
    Store(drainTid_, pthread_self());
}

// The type comes last: a producer that sees it sees the rest.
void OneWayChannel::Publish(RegistrationType type)
{
    Store(loopTid, pthread_self());
    Store(loopTidValid, true);
    Store(registrationType, static_cast<int>(type));
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
    const int result = zloop_poller(loop, &item, _OneWayChannelZLoopFunctionHandler, this);
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
    self->TakeOver(context, std::move(function));
    Store(self->registrationType, static_cast<int>(RegistrationType::UserFD));
    *fd = self->pipeFds[0];
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
        zmq_pollitem_t item = PollItem(pipeFds[0]);
        zloop_poller_end(registeredZLoop, &item);
        registeredZLoop = nullptr;
    }
    else if (type == RegistrationType::EventLoop)
    {
        CHANNEL_HEADER_LOG(trace, __func__, "unregister sd_event");
    }
    // Also what a self-made poll loop took the place of.
    ioSource.reset();
    GiveUpWatch(false);
    Store(registrationType, static_cast<int>(RegistrationType::None));
    Store(userContext, static_cast<void*>(nullptr));
    ended.swap(defaultFunction);
    Store(loopTidValid, false);
    CHANNEL_HEADER_LOG(trace, __func__, "leave");
}

} // namespace infrautils
