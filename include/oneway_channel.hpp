#ifndef ONEWAY_CHANNEL_HPP
#define ONEWAY_CHANNEL_HPP

/**
 * @file
 * Work from any thread to the thread of one event loop.
 *
 * A producer queues a message (a function, a data pointer and a size) and writes two bytes into a
 * pipe; the loop watches the pipe's read end and runs the queued functions on its own thread, each
 * with the context that was given at registration. Nothing travels back. There is one channel per
 * process. An sd-event loop, a CZMQ `zloop`, an asio `io_context` or the caller's own poll loop can
 * drive it, one at a time.
 *
 * Order of calls: register from the loop's own thread, post from any thread, unregister on the
 * loop's thread once the producers have stopped. Messages that were not processed by then stay
 * queued for the next registration.
 *
 * A full pipe: producers wait until the loop has drained enough of it, without holding any lock.
 * The loop's own thread never waits; when the pipe is full, the triggers in it wake the loop for
 * its messages, too.
 *
 * fork(): the parent's channel goes on undisturbed. The child's copy is destroyed, with what was
 * queued; its first use makes a new, unregistered channel. A loop that the child inherited must not
 * be run there without the loop library's own provisions.
 *
 * The flat functions can be used from C. Those that catch nothing let `std::system_error` (a failed
 * lock), `std::bad_alloc` and `std::runtime_error` (no pipe) through.
 */

#include <bmcbus/export.h>

#include <czmq.h>
#include <pthread.h>
#include <systemd/sd-event.h>

#ifdef __cplusplus

#include <bmcbus/config.h>

#include <utility> // before asio, which forgets it

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/error_code.hpp>
#include <sdeventplus/event.hpp>
#include <sdeventplus/source/io.hpp>

#include <functional>
#include <list>
#include <memory>
#include <mutex>

#if BMCBUS_ASIO_DISABLE_THREADS != defined(BOOST_ASIO_DISABLE_THREADS)
#error "Boost.Asio must be configured as in libbmcbus: take the flags of pkg-config bmcbus"
#endif

#else
#include <stdbool.h>
#endif

/**
 * A message's function: gets the registration's context, and the message's data and size. The
 * result is ignored.
 *
 * Runs on the loop's thread, without any lock: it may post, also again and again, and its messages
 * run in the same drain. A `std::exception` from it is logged. Anything else passes to the loop,
 * and the messages after it run at the next wake-up; a `zloop` is C and not made for that.
 */
typedef int (*OneWayChannelFunction)(void* context, void* data, unsigned long size);

#ifdef __cplusplus

namespace infrautils
{

/** Guards the queue and the trigger writes; held across fork(), never while a function runs. */
extern BMCBUS_EXPORT std::mutex oneWayChannelOperationMutex;

/** How the read end of the pipe is watched. */
enum class RegistrationType : int
{
    None = 0,
    EventLoop = 1,
    ZLoop = 2,
    IOContext = 3,
    UserFD = 4
};

/** One queued message. */
struct MBMessage
{
    std::function<int(void*, void*, unsigned long)> function;
    void* data;
    unsigned long size;
    bool freeData; ///< release `data` with free() after the call
};

/**
 * The channel. See the file's description for threads, blocking and fork().
 *
 * Results of the operations: 0 success, 2 a registration is in place, 3 not possible in this state,
 * 4 the reactor refused the pipe, 6 the trigger could not be written (the message stays queued), 7
 * the pipe could not be read.
 */
class BMCBUS_EXPORT OneWayChannel
{
  public:
    using Function = std::function<int(void*, void*, unsigned long)>;

    /**
     * The channel of this process, made on first use. Any thread.
     *
     * Throws `std::runtime_error` when no pipe can be made, `std::system_error` when a lock fails.
     */
    static OneWayChannel* GetInstance();

    /**
     * Lets an sd-event loop drive the channel. Call it on the loop's thread.
     *
     * The watch keeps a reference to the loop until `Unregister`.
     *
     * @param context          first argument of every function; the caller's
     * @param defaultFunction  for messages without a function; may be empty
     * @return 0, or 2 when a registration is in place. Throws what sdeventplus throws.
     */
    int RegisterEventLoop(sdeventplus::Event& event, void* context, Function defaultFunction);

    /** Lets a `zloop` drive the channel, on the same terms. @return 0, 2, or 4 when it refuses. */
    int RegisterZLoop(zloop_t* loop, void* context, Function defaultFunction);

    /**
     * Lets an `io_context` drive the channel, on the same terms. @return 0 or 2.
     *
     * The context may be destroyed after `Unregister`, not before. Throws asio's error.
     */
    int RegisterIOContext(boost::asio::io_context& context, void* userContext,
                          Function defaultFunction);

    /**
     * Queues a message. Any thread; a producer waits while the pipe is full.
     *
     * @param data  the producer's until the function has run; with @p freeData the channel's
     * @return 0; 3 when nothing is registered, with nothing queued or released; 6
     */
    int Execute(Function function, void* data, unsigned long size, bool freeData);

    /** Queues a message for the default function. @return as above; 3 also without one. */
    int Execute(void* data, unsigned long size, bool freeData);

    /** Runs every queued message. For the loop's thread. */
    void ProcessMBQueue(void* context);

    /**
     * Ends the registration. On the loop's thread, also from inside a message's function; waits for
     * the operation mutex only.
     */
    void Unregister();

    /** Logs which registration is in place. @return 2 */
    int _ReturnAlreadyRegistered();

    /** Writes the two trigger bytes; the caller holds the operation mutex. @return 0 or 6 */
    int TriggerReadPipeNoLock();

    // What the loops call.
    void _PipeIOEventReceive(sdeventplus::source::IO& source, int fd, unsigned int events,
                             void* context);
    int _ReadFromPipe(int fd);
    int _PipeZLoopReceive(zloop_t* loop, zmq_pollitem_t* item, void* arg);
    void _PipeIOContexHandler(const boost::system::error_code& error, unsigned long bytes);

    OneWayChannel(const OneWayChannel&) = delete;
    OneWayChannel& operator=(const OneWayChannel&) = delete;

    /** The channel, null until first use. */
    static OneWayChannel* instance;

    /** Guards the making of the channel. */
    static std::mutex initCriticalSection;

  private:
    friend struct OneWayChannelFlat;
    class Drain;

    OneWayChannel();
    ~OneWayChannel();

    static void ForkPrepare();
    static void ForkParent();
    static void ForkChild();

    RegistrationType Type() const;
    void BeginRegistration(void* context, Function function);
    void EndRegistration(RegistrationType type);
    void RegisterUserFD(int* fd, void* context, Function function);
    void WaitForIO();
    void ReleaseStreamDescriptor();
    long ReadTriggers(int fd);
    int WriteTrigger();
    bool HasRoom();
    void WaitForRoom() const;
    bool OnLoopThread() const;

    int pipeFds[2];
    std::list<MBMessage*> mbQueue;
    int registrationType;
    void* userContext;
    Function defaultFunction;
    char readBuffer[32];
    pthread_t loopTid;
    bool loopTidValid;
    std::unique_ptr<sdeventplus::source::IO> ioSource;
    zloop_t* registeredZLoop;
    std::unique_ptr<boost::asio::posix::stream_descriptor> streamDescriptor;

    // The thread that drains, also where loopTid is not published.
    pthread_t drainTid;
    // Trigger bytes in the pipe, never counted too low, and how many surely fit.
    int triggerBytes;
    int safeBytes;
};

/** What `zloop_poller` gets: forwards to the channel @p arg. */
BMCBUS_EXPORT int _OneWayChannelZLoopFunctionHandler(zloop_t* loop, zmq_pollitem_t* item,
                                                     void* arg);

} // namespace infrautils

/**
 * Registration for the caller's own poll loop; no watch is made.
 *
 * Poll @p fd for reading on the calling thread and call `OneWayChannel_Process` when it is
 * readable. It takes the place of any other registration without asking.
 *
 * @param[out] fd  the channel's descriptor, which stays the channel's
 * @return 0
 */
BMCBUS_EXPORT int OneWayChannel_GetChannelFDAndSelfRegister(int* fd, void* context);

extern "C"
{
#endif

    /**
     * Lets an sd-event loop drive the channel. Call it on the loop's thread; works once per
     * process.
     *
     * Takes a reference on @p event for the life of the process.
     *
     * @return 0; 2 when it was called successfully before, also in a parent process; 5 after an
     * exception, which is logged
     */
    BMCBUS_EXPORT int OneWayChannel_RegisterSDEvent(sd_event* event, void* context);

    /** Lets a `zloop` drive the channel. @return 0, also when it is refused with a log line; or 5
     */
    BMCBUS_EXPORT int OneWayChannel_RegisterZLoop(zloop_t* loop, void* context);

    /** The same with a default function, which may be null. */
    BMCBUS_EXPORT int
    OneWayChannel_RegisterZLoopWithDefaultFunction(zloop_t* loop, void* context,
                                                   OneWayChannelFunction function);

    /** As `OneWayChannel_GetChannelFDAndSelfRegister`, with a default function, which may be null.
     */
    BMCBUS_EXPORT int
    OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(int* fd, void* context,
                                                                 OneWayChannelFunction function);

    /**
     * Queues a message. Any thread; a producer waits while the pipe is full.
     *
     * @param freeData  not 0: `data` is released with free() after the function ran
     * @return 0; 3 when nothing is registered; 6 when the trigger could not be written
     */
    BMCBUS_EXPORT int OneWayChannel_Execute(OneWayChannelFunction function, void* data,
                                            unsigned long size, int freeData);

    /** Queues a message for the default function. @return as above; 3 also without one */
    BMCBUS_EXPORT int OneWayChannel_ExecuteDefault(void* data, unsigned long size, int freeData);

    /**
     * Drains the channel in the caller's own poll loop.
     *
     * @return 0; 1 after an exception, which is logged; 3 for another kind of registration; 7
     */
    BMCBUS_EXPORT int OneWayChannel_Process(int fd);

    /** Ends the registration; see `Unregister`. */
    BMCBUS_EXPORT void OneWayChannel_Unregister(void);

    /**
     * Tells whether a loop is registered, and which thread it runs on. Any thread; does not block.
     *
     * @param[out] tidValid  false also for the caller's own poll loop, whose thread is not
     * published
     */
    BMCBUS_EXPORT void OneWayChannel_IsRegistered(bool* registered, bool* tidValid, pthread_t* tid);

#ifdef __cplusplus
}
#endif

#endif
