// The channel of the process and its fields: how it is made, which thread is its loop's, and what
// becomes of it in a forked child. What wakes the loop is in oneway_channel_wakeup.cpp, what goes
// through the channel in oneway_channel_queue.cpp, the loops that drive it in
// oneway_channel_loops.cpp and oneway_channel_asio.cpp; each of these uses those named before it.

#include <oneway_channel.hpp>

#include "threads/fork_handlers.hpp"
#include "threads/oneway_channel_internal.hpp"
#include "threads/threadfunnel_state.hpp"

#include <unistd.h>

#include <stdexcept>

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

// In a child: the parents' channels, the youngest first. They stay as they were: an inherited zloop
// still has the address, an inherited sd-event source shares the parent's epoll instance, and what
// the queued functions hold is the parent's.
constinit OneWayChannel* inheritedChannels = nullptr;

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

[[gnu::hot]] OneWayChannel* OneWayChannel::GetInstance()
{
    static constexpr bmcbus::funnel::ForkParticipant inForks{
        .prepare = ForkPrepare, .parent = ForkParent, .child = ForkChild};
    if (OneWayChannel* made = Load(instance))
    {
        return made;
    }
    // Before the lock: this may wait for a fork() under way, and that for the lock.
    bmcbus::funnel::TakePartInForks(inForks);
    const std::lock_guard lock(initCriticalSection);
    if (instance == nullptr)
    {
        Store(instance, new OneWayChannel);
    }
    return instance;
}

void OneWayChannel::ForkPrepare()
{
    initCriticalSection.lock();
    oneWayChannelOperationMutex.lock();
}

void OneWayChannel::ForkParent()
{
    oneWayChannelOperationMutex.unlock();
    initCriticalSection.unlock();
}

void OneWayChannel::ForkChild()
{
    ForkParent();
    ++channel::forks;
    OneWayChannel* const inherited = instance;
    if (inherited == nullptr)
    {
        return;
    }
    Store(instance, static_cast<OneWayChannel*>(nullptr));
    CHANNEL_HEADER_LOG(
        misuse, "~OneWayChannel",
        "Destructor. fork happened? (NOT Recommended to fork with multiple threads)");
    close(inherited->pipeFds[0]);
    close(inherited->pipeFds[1]);
    inherited->earlier_ = inheritedChannels;
    inheritedChannels = inherited;
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
    {
        const std::lock_guard lock(oneWayChannelOperationMutex);
        wakeOnce_ = false;
    }
    BecomeLoopThread();
}

// The type comes last: a producer that sees it sees the rest.
void OneWayChannel::Publish(RegistrationType type)
{
    Store(loopTid, pthread_self());
    Store(loopTidValid, true);
    Store(registrationType, static_cast<int>(type));
}

// Ids of threads come back: when the loop's thread ends, nothing may name it any more.
void OneWayChannel::BecomeLoopThread()
{
    struct AtItsEnd
    {
        ~AtItsEnd()
        {
            const pthread_t ended = pthread_self();
            if (OneWayChannel* const present = Load(instance))
            {
                present->ForgetThread(ended);
            }
            bmcbus::funnel::ForgetLoopThread(ended);
        }
    };
    static thread_local const AtItsEnd atItsEnd;
    Store(drainTid_, pthread_self());
}

void OneWayChannel::ForgetThread(pthread_t ended)
{
    if (pthread_equal(Load(drainTid_), ended) != 0)
    {
        Store(drainTid_, pthread_t{});
    }
    if (Load(loopTidValid) && pthread_equal(Load(loopTid), ended) != 0)
    {
        Store(loopTidValid, false);
    }
}

bool channel::LoopThread(pthread_t& tid)
{
    const OneWayChannel* const present = Load(OneWayChannel::instance);
    if (present == nullptr || Load(present->registrationType) == 0 || !Load(present->loopTidValid))
    {
        return false;
    }
    tid = Load(present->loopTid);
    return true;
}

} // namespace infrautils
