#include <oneway_channel.hpp>

#include "log.hpp"
#include "oneway_channel_flat.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <stdexcept>

// The pipe is the wake-up, the queue is the data. Nobody ever blocks in the write: a producer that
// finds no room waits for it with poll() and without the mutex, and the loop's own thread does not
// wait at all, since the triggers that fill the pipe will wake it anyway. The registration's fields
// are read without a lock by design; they are plain in type and atomic in access.

namespace infrautils
{

constinit std::mutex oneWayChannelOperationMutex;
constinit std::mutex OneWayChannel::initCriticalSection;
constinit OneWayChannel* OneWayChannel::instance = nullptr;

namespace
{

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

// Which asio registration is in force. A handler of an earlier one, or one in a forked child, holds
// another number and does nothing.
std::atomic<unsigned long> ioGeneration{0};

pthread_once_t forkHandlers = PTHREAD_ONCE_INIT;

zmq_pollitem_t PollItem(int fd)
{
    return {.socket = nullptr, .fd = fd, .events = ZMQ_POLLIN, .revents = 0};
}

void Discard(MBMessage* message)
{
    if (message->freeData)
    {
        std::free(message->data);
    }
    delete message;
}

} // namespace

OneWayChannel::OneWayChannel() :
    registrationType(0),
    userContext(nullptr),
    loopTid(),
    loopTidValid(false),
    registeredZLoop(nullptr),
    drainTid(),
    triggerBytes(0)
{
    const int result = pipe(pipeFds);
    if (result != 0)
    {
        BMCBUS_LOG(failure, "Pipe creation failed : %d", result);
        throw std::runtime_error("Error in pipe creation OneWayChannel");
    }
    // A page that is read in part still takes its place, so one page is left out.
    safeBytes =
        std::max(0, fcntl(pipeFds[1], F_GETPIPE_SZ) - static_cast<int>(sysconf(_SC_PAGESIZE)));
}

OneWayChannel::~OneWayChannel()
{
    BMCBUS_LOG(misuse,
               "Destructor. fork happened? (NOT Recommended to fork with multiple threads)");
    ioSource.reset();
    defaultFunction = nullptr;
    std::for_each(mbQueue.begin(), mbQueue.end(), Discard);
    close(pipeFds[1]);
    if (streamDescriptor)
    {
        // The reactor is shared with the parent, whose watch must stay: the object is given up, not
        // destroyed. Its descriptor stays open for the child's io_context, should it be told of the
        // fork.
        static_cast<void>(streamDescriptor.release());
    }
    else
    {
        close(pipeFds[0]);
    }
}

OneWayChannel* OneWayChannel::GetInstance()
{
    if (OneWayChannel* made = Load(instance))
    {
        return made;
    }
    // Before the lock: registering waits for a fork() that is under way, and that for the lock.
    pthread_once(&forkHandlers,
                 []
                 {
                     static_cast<void>(pthread_atfork(ForkPrepare, ForkParent, ForkChild));
                 });
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
    ioGeneration.fetch_add(1);
    OneWayChannel* const inherited = instance;
    Store(instance, static_cast<OneWayChannel*>(nullptr));
    ForkParent();
    delete inherited;
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
            BMCBUS_LOG(error, "Event Loop registration already done");
            break;
        case RegistrationType::ZLoop:
            BMCBUS_LOG(error, "zloop registration already done");
            break;
        case RegistrationType::IOContext:
            BMCBUS_LOG(error, "io_context already done");
            break;
        case RegistrationType::UserFD:
            BMCBUS_LOG(error, "User Fetched FD and registered already");
            break;
        case RegistrationType::None:
        default:
            BMCBUS_LOG(error, "Already registered %d", Load(registrationType));
            break;
    }
    return channel::alreadyRegistered;
}

void OneWayChannel::BeginRegistration(void* context, Function function)
{
    Store(userContext, context);
    defaultFunction = std::move(function);
    Store(drainTid, pthread_self());
}

// The type comes last: a producer that sees it sees the rest.
void OneWayChannel::EndRegistration(RegistrationType type)
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
        {
            _PipeIOEventReceive(source, fd, events, context);
        });
    BeginRegistration(context, std::move(function));
    EndRegistration(RegistrationType::EventLoop);
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
        BMCBUS_LOG(error, "Registering pipe to poller failed : %d", result);
        return channel::pollerRefused;
    }
    registeredZLoop = loop;
    BeginRegistration(context, std::move(function));
    EndRegistration(RegistrationType::ZLoop);
    return channel::success;
}

int OneWayChannel::RegisterIOContext(boost::asio::io_context& context, void* newUserContext,
                                     Function function)
{
    if (Type() != RegistrationType::None)
    {
        return _ReturnAlreadyRegistered();
    }
    streamDescriptor = std::make_unique<boost::asio::posix::stream_descriptor>(context);
    boost::system::error_code failed;
    streamDescriptor->assign(pipeFds[0], failed);
    if (failed)
    {
        streamDescriptor.reset(); // owns nothing yet
        throw boost::system::system_error(failed, "assign");
    }
    BeginRegistration(newUserContext, std::move(function));
    ioGeneration.fetch_add(1);
    WaitForIO();
    EndRegistration(RegistrationType::IOContext);
    return channel::success;
}

void OneWayChannel::RegisterUserFD(int* fd, void* context, Function function)
{
    BeginRegistration(context, std::move(function));
    Store(registrationType, static_cast<int>(RegistrationType::UserFD));
    *fd = pipeFds[0];
}

int OneWayChannel::Execute(Function function, void* data, unsigned long size, bool freeData)
{
    if (Type() == RegistrationType::None)
    {
        BMCBUS_LOG(misuse, "the receive fd is not registered, please call Register");
        return channel::notPossible;
    }
    auto message =
        std::make_unique<MBMessage>(MBMessage{std::move(function), data, size, freeData});
    std::unique_lock lock(oneWayChannelOperationMutex);
    mbQueue.push_back(message.get());
    static_cast<void>(message.release());
    while (!HasRoom())
    {
        // Nobody but this thread drains the pipe, or nobody at all does any more. What fills it
        // wakes whoever comes to drain it.
        if (OnLoopThread() || Type() == RegistrationType::None)
        {
            return channel::success;
        }
        lock.unlock();
        WaitForRoom();
        lock.lock();
    }
    return TriggerReadPipeNoLock();
}

int OneWayChannel::Execute(void* data, unsigned long size, bool freeData)
{
    if (!defaultFunction)
    {
        BMCBUS_LOG(misuse, "Default function handler not registered");
        return channel::notPossible;
    }
    return Execute(defaultFunction, data, size, freeData);
}

int OneWayChannel::TriggerReadPipeNoLock()
{
    static char buf[2] = {'R', '\0'};
    // Counted first, as the loop may read the bytes before this returns.
    std::atomic_ref count(triggerBytes);
    count.fetch_add(sizeof(buf), std::memory_order_relaxed);
    const ssize_t written = write(pipeFds[1], buf, sizeof(buf));
    if (written <= 0)
    {
        count.fetch_sub(sizeof(buf), std::memory_order_relaxed);
        BMCBUS_LOG(failure, "Write failed : %zd", written);
        return channel::writeFailed;
    }
    return channel::success;
}

// True when the next trigger will not block. The count spares asking the kernel most of the time.
bool OneWayChannel::HasRoom()
{
    const int bytes = std::atomic_ref(triggerBytes).load(std::memory_order_relaxed);
    if (bytes + 2 <= safeBytes)
    {
        return true;
    }
    pollfd end{.fd = pipeFds[1], .events = POLLOUT, .revents = 0};
    // An error is for the write to find.
    return poll(&end, 1, 0) != 0;
}

// Comes back now and then to see whether the registration has ended.
void OneWayChannel::WaitForRoom() const
{
    static constexpr int milliseconds = 100;
    pollfd end{.fd = pipeFds[1], .events = POLLOUT, .revents = 0};
    static_cast<void>(poll(&end, 1, milliseconds));
}

bool OneWayChannel::OnLoopThread() const
{
    return pthread_equal(Load(drainTid), pthread_self()) != 0;
}

long OneWayChannel::ReadTriggers(int fd)
{
    const ssize_t bytes = read(fd, readBuffer, sizeof(readBuffer));
    if (bytes > 0)
    {
        std::atomic_ref(triggerBytes).fetch_sub(static_cast<int>(bytes), std::memory_order_relaxed);
    }
    return bytes;
}

void OneWayChannel::_PipeIOEventReceive(sdeventplus::source::IO& /*source*/, int fd,
                                        unsigned int /*events*/, void* context)
{
    const ssize_t bytes = ReadTriggers(fd);
    if (bytes < 0)
    {
        BMCBUS_LOG(misuse, "Error in read : %zd", bytes);
        return;
    }
    ProcessMBQueue(context);
}

int OneWayChannel::_ReadFromPipe(int fd)
{
    const ssize_t bytes = ReadTriggers(fd);
    if (bytes < 0)
    {
        BMCBUS_LOG(misuse, "Error in zloop pipe read : %zd", bytes);
        return channel::readFailed;
    }
    ProcessMBQueue(Load(userContext));
    return channel::success;
}

int OneWayChannel::_PipeZLoopReceive(zloop_t* /*loop*/, zmq_pollitem_t* item, void* /*arg*/)
{
    return _ReadFromPipe(item->fd);
}

int _OneWayChannelZLoopFunctionHandler(zloop_t* loop, zmq_pollitem_t* item, void* arg)
{
    // In a forked child the reactor still knows the parent's channel.
    auto* const self = static_cast<OneWayChannel*>(arg);
    return self == Load(OneWayChannel::instance) ? self->_PipeZLoopReceive(loop, item, arg) : 0;
}

void OneWayChannel::WaitForIO()
{
    streamDescriptor->async_read_some(
        boost::asio::null_buffers(),
        [mine = ioGeneration.load()](const boost::system::error_code& error, size_t bytes)
        {
            if (mine == ioGeneration.load())
            {
                Load(instance)->_PipeIOContexHandler(error, bytes);
            }
        });
}

void OneWayChannel::_PipeIOContexHandler(const boost::system::error_code& error,
                                         unsigned long /*bytes*/)
{
    if (error)
    {
        BMCBUS_LOG(misuse, "Error in IOContext Read: %d", error.value());
        return;
    }
    const size_t bytes =
        streamDescriptor->read_some(boost::asio::buffer(readBuffer, sizeof(readBuffer)));
    std::atomic_ref(triggerBytes).fetch_sub(static_cast<int>(bytes), std::memory_order_relaxed);
    // Waits again also when a function's exception passes, unless the registration ended meanwhile.
    struct Again
    {
        OneWayChannel& channel;
        unsigned long mine = ioGeneration.load();
        ~Again()
        {
            if (mine == ioGeneration.load())
            {
                channel.WaitForIO();
            }
        }
    } const again{*this};
    ProcessMBQueue(Load(userContext));
}

// The descriptor stays the channel's, and blocking, as it was before asio had it.
void OneWayChannel::ReleaseStreamDescriptor()
{
    ioGeneration.fetch_add(1);
    const int fd = streamDescriptor->release();
    streamDescriptor.reset();
    const int flags = fcntl(fd, F_GETFL);
    static_cast<void>(fcntl(fd, F_SETFL, flags & ~O_NONBLOCK));
}

// A message being run. It goes whatever its function does; what is queued behind an exception that
// passes must still be woken for.
class OneWayChannel::Drain
{
  public:
    Drain(OneWayChannel& owner, MBMessage* message) : channel(owner), current(message)
    {
    }

    ~Drain()
    {
        Discard(current);
        if (std::uncaught_exceptions() > before)
        {
            const std::lock_guard lock(oneWayChannelOperationMutex);
            if (!channel.mbQueue.empty() && channel.HasRoom())
            {
                channel.TriggerReadPipeNoLock();
            }
        }
    }

    Drain(const Drain&) = delete;
    Drain& operator=(const Drain&) = delete;

  private:
    OneWayChannel& channel;
    MBMessage* current;
    int before = std::uncaught_exceptions();
};

void OneWayChannel::ProcessMBQueue(void* context)
{
    Store(drainTid, pthread_self());
    while (true)
    {
        std::unique_lock lock(oneWayChannelOperationMutex);
        if (mbQueue.empty())
        {
            return;
        }
        MBMessage* const message = mbQueue.front();
        mbQueue.pop_front();
        lock.unlock();
        const Drain drain(*this, message);
        try
        {
            static_cast<void>(message->function(context, message->data, message->size));
        }
        catch (const std::exception& e)
        {
            BMCBUS_LOG(failure, "Error in ProcessMBQueue : %s", e.what());
        }
    }
}

void OneWayChannel::Unregister()
{
    const std::lock_guard lock(oneWayChannelOperationMutex);
    BMCBUS_LOG(trace, "enter");
    switch (Type())
    {
        case RegistrationType::None:
            BMCBUS_LOG(trace, "not registered");
            return;
        case RegistrationType::ZLoop:
        {
            BMCBUS_LOG(trace, "unregister zloop");
            zmq_pollitem_t item = PollItem(pipeFds[0]);
            zloop_poller_end(registeredZLoop, &item);
            registeredZLoop = nullptr;
            break;
        }
        case RegistrationType::EventLoop:
            BMCBUS_LOG(trace, "unregister sd_event");
            ioSource.reset();
            break;
        case RegistrationType::IOContext:
            ReleaseStreamDescriptor();
            break;
        case RegistrationType::UserFD:
            break;
    }
    Store(registrationType, static_cast<int>(RegistrationType::None));
    Store(userContext, static_cast<void*>(nullptr));
    defaultFunction = nullptr;
    Store(loopTidValid, false);
    BMCBUS_LOG(trace, "leave");
}

void OneWayChannelFlat::RegisterUserFD(int* fd, void* context, OneWayChannel::Function function)
{
    OneWayChannel::GetInstance()->RegisterUserFD(fd, context, std::move(function));
}

int OneWayChannelFlat::Process(int fd)
{
    OneWayChannel* const channel = OneWayChannel::GetInstance();
    return channel->Type() == RegistrationType::UserFD ? channel->_ReadFromPipe(fd)
                                                       : channel::notPossible;
}

void OneWayChannelFlat::State(bool& registered, bool& tidValid, pthread_t& tid)
{
    const OneWayChannel* const channel = OneWayChannel::GetInstance();
    registered = channel->Type() != RegistrationType::None;
    tidValid = Load(channel->loopTidValid);
    tid = Load(channel->loopTid);
}

} // namespace infrautils
