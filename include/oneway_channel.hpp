#ifndef BMCBUS_ONEWAY_CHANNEL_HPP
#define BMCBUS_ONEWAY_CHANNEL_HPP

/**
 * @file
 * Hands work from any thread to the thread of one event loop.
 *
 * A producer queues a message (a function, a data pointer and a size) and writes two bytes into a
 * pipe; the loop watches the pipe's read end and runs the queued functions on its own thread, each
 * with the context that was given at registration. Nothing travels back. There is one channel per
 * process. An sd-event loop, a CZMQ `zloop`, an asio `io_context` or the caller's own poll loop can
 * drive it, one at a time.
 *
 * @code
 * static int Work(void* context, void* data, unsigned long size); // runs on the loop's thread
 *
 * OneWayChannel_RegisterZLoop(loop, context);   // on the thread that will run the loop
 * OneWayChannel_Execute(Work, data, size, 0);   // on any thread
 * OneWayChannel_Unregister();                   // on the loop's thread, after the last post
 * @endcode
 *
 * **Order.** Register, let producers post, stop them, unregister. Messages run in the order in
 * which they were queued. Those that nobody processed stay queued for the next registration.
 *
 * **A full pipe.** Producers wait until the loop has drained some of it (65536 bytes hold 32768
 * triggers), without holding a lock; when the registration ends meanwhile they return. The loop's
 * own thread never waits: when its trigger finds no room, those in the pipe wake the loop for its
 * message, too. The loop's own thread is the one that registered, or that drained last.
 *
 * **Exceptions.** A `std::exception` from a message's function is logged. Any other exception
 * passes to the loop, and the messages behind it run at the next wake-up. A `zloop` is written in
 * C: what passes through it ends the program on some machines.
 *
 * **fork().** The parent's channel goes on undisturbed. The child forgets its copy and what was
 * queued, without destroying anything that functions hold; its first call makes a new, unregistered
 * channel. Inside a message's function that forks, only this function goes on in the child. A
 * thread must not fork while it holds `infrautils::oneWayChannelOperationMutex`. An inherited
 * `io_context` needs asio's `notify_fork` before it can run in the child; an inherited sd-event
 * loop cannot run there at all.
 *
 * **From C** the flat functions can be called, except where noted. Those that catch nothing let
 * `std::system_error` (a failed lock), `std::bad_alloc` and `std::runtime_error` (no pipe) pass.
 */

#include <bmcbus/export.h>

#include <pthread.h>
#include <stdbool.h>

#ifdef __cplusplus

#include <bmcbus/config.h>

#include <utility> // before asio 1.74, which forgets it

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/system/error_code.hpp>
#include <sdeventplus/event.hpp>
#include <sdeventplus/source/io.hpp>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#if BMCBUS_ASIO_DISABLE_THREADS != defined(BOOST_ASIO_DISABLE_THREADS)
#error "Boost.Asio must be configured as in libbmcbus: take the flags of pkg-config bmcbus"
#endif

struct zmq_pollitem_t;

#endif

/// @cond internal
typedef struct sd_event sd_event;
typedef struct _zloop_t zloop_t;
/// @endcond

/**
 * A message's function. Gets the registration's context, and the message's data and size; the
 * result is ignored.
 *
 * Runs on the loop's thread, without a lock of the channel. It may post, again and again: its
 * messages run in the same drain, without waiting. It may also unregister and register.
 */
typedef int (*OneWayChannelFunction)(void* context, void* data, unsigned long size);

#ifdef __cplusplus

namespace infrautils
{

/**
 * Guards the queue and the room for triggers; held across fork(), never while a function runs and
 * never while a producer waits.
 */
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

/** One queued message; on the heap, the queue's. */
struct MBMessage
{
    std::function<int(void*, void*, unsigned long)> function; ///< may be empty
    void* data;                                               ///< as the producer gave it
    unsigned long size;                                       ///< passed through
    bool freeData; ///< release `data` with free() once the function has run
};

/**
 * The channel, with the members that its flat functions are made of.
 *
 * See the file's description for threads, waiting, exceptions and fork(). Results: 0 success, 2 a
 * registration is in place, 3 not possible in this state, 4 the reactor refused the pipe, 6 the
 * trigger could not be written, 7 the pipe could not be read; each but 0 comes with a log line,
 * except the 3 of `OneWayChannel_Process`. A lock that fails throws `std::system_error`.
 */
class BMCBUS_EXPORT OneWayChannel
{
  public:
    /** What a message runs: context, data, size; the result is ignored. */
    using Function = std::function<int(void*, void*, unsigned long)>;

    /**
     * The channel of this process, made on first use. Any thread; does not block.
     *
     * @throws std::runtime_error when there is no pipe; the next call tries again
     */
    static OneWayChannel* GetInstance();

    /**
     * Lets an sd-event loop drive the channel. Call it on the loop's thread.
     *
     * The watch holds a reference to the loop until `Unregister`.
     *
     * @param context  first argument of every function; stays the caller's
     * @param defaultFunction  for messages without a function; may be empty
     * @return 0 or 2
     * @throws what sdeventplus throws; nothing is registered then
     */
    int RegisterEventLoop(sdeventplus::Event& event, void* context, Function defaultFunction);

    /**
     * Lets a `zloop` drive the channel, on the same terms. It must outlive the registration.
     *
     * @return 0, 2 or 4
     */
    int RegisterZLoop(zloop_t* loop, void* context, Function defaultFunction);

    /**
     * Lets an `io_context` drive the channel, on the same terms.
     *
     * The watch has a descriptor of its own for the read end, which is non-blocking while the
     * registration lasts. It counts as work of the context, also after `Unregister` until the
     * pipe is readable; it then runs nothing. The next registration with the same context uses it
     * again. The context may be destroyed at any time that it
     * does not run. Where asio is built without locks (`BMCBUS_ASIO_DISABLE_THREADS` is 1, as real
     * sdbusplus asks for), only one thread of the process may run contexts at all; producers may
     * be on any thread all the same.
     *
     * @return 0 or 2
     * @throws boost::system::system_error when the descriptor is refused; nothing is registered
     */
    int RegisterIOContext(boost::asio::io_context& context, void* userContext,
                          Function defaultFunction);

    /**
     * Queues a message. Any thread; a producer waits while the pipe is full. It is no cancellation
     * point. When it throws, nothing was queued.
     *
     * @param data  the producer's until the function has run; with @p freeData the channel's, from
     * malloc()
     * @return 0; 3 when nothing is registered, with nothing queued and nothing released; 6 with
     * the message queued for a later wake-up
     */
    int Execute(Function function, void* data, unsigned long size, bool freeData);

    /** Queues a message for the default function. @return as above, 3 also without one */
    int Execute(void* data, unsigned long size, bool freeData);

    /**
     * Runs every queued message with @p context. For the loop's thread.
     *
     * Lets exceptions pass that are not `std::exception`; the message that threw is released.
     */
    void ProcessMBQueue(void* context);

    /**
     * Ends the registration. On the loop's thread, also inside a message's function. Does not
     * block; what is queued stays queued.
     */
    void Unregister();

    /**
     * Has the registration in force wake its loop once for a burst: a message that is queued while
     * an earlier wake-up has not been followed to its end writes no trigger. On the loop's thread,
     * after registering; ends with the registration. Order, refusals, waiting producers and fork()
     * stay as they are. Does not block.
     *
     * @return 0, or 3 when nothing is registered, which is logged
     */
    int WakeOncePerBurst();

    /** Logs which registration is in place. @return 2 */
    int _ReturnAlreadyRegistered();

    /**
     * Writes the two trigger bytes, unless the pipe is full and so wakes the loop anyway. The
     * caller holds `oneWayChannelOperationMutex`. Does not block.
     *
     * @return 0 or 6
     */
    BMCBUS_EXPORT int TriggerReadPipeNoLock();

    /** Called by an sd-event loop, on its thread: reads triggers, then drains the queue. */
    void _PipeIOEventReceive(sdeventplus::source::IO& source, int fd, unsigned int events,
                             void* context);

    /** Reads triggers from @p fd, then drains the queue. On the loop's thread. @return 0 or 7 */
    int _ReadFromPipe(int fd);

    /** Called by a `zloop`, on its thread. @return what the reactor gets, 0 or 7 */
    int _PipeZLoopReceive(zloop_t* loop, zmq_pollitem_t* item, void* arg);

    /**
     * Called by an `io_context`, on its thread: reads triggers, drains the queue and waits again;
     * not after an error.
     *
     * @throws boost::system::system_error when the pipe cannot be read
     */
    void _PipeIOContexHandler(const boost::system::error_code& error, unsigned long bytes);

    /** Makes the pipe. @throws std::runtime_error after a log line */
    OneWayChannel();

    /** Releases what is queued without running it. The channel of the process is never destroyed.
     */
    ~OneWayChannel();

    OneWayChannel(const OneWayChannel&) = delete;
    OneWayChannel& operator=(const OneWayChannel&) = delete;

    /** The channel, null until first use. Read it through `GetInstance`. */
    static OneWayChannel* instance;

    /** Guards the making of the channel; held across fork(), too. */
    static std::mutex initCriticalSection;

    /** @name State
     * Written by the registration functions without a lock, `mbQueue` under the operation mutex.
     * @{ */
    int pipeFds[2];                ///< read end, write end
    std::list<MBMessage*> mbQueue; ///< first in, first out
    int registrationType;          ///< a `RegistrationType`
    void* userContext;             ///< first argument of every function
    Function defaultFunction;      ///< may be empty
    char readBuffer[32];           ///< triggers end here
    pthread_t loopTid;             ///< thread that registered the loop
    bool loopTidValid; ///< whether `loopTid` is set; not for a self-made poll loop or ended thread
    std::unique_ptr<sdeventplus::source::IO> ioSource; ///< watch of an sd-event loop
    zloop_t* registeredZLoop;                          ///< reactor of a `ZLoop` registration
    /// watch of an `io_context`
    std::unique_ptr<boost::asio::posix::stream_descriptor> streamDescriptor;
    /** @} */

  private:
    friend struct OneWayChannelFlat;
    struct BMCBUS_LOCAL Watch;

    BMCBUS_LOCAL static void ForkPrepare();
    BMCBUS_LOCAL static void ForkParent();
    BMCBUS_LOCAL static void ForkChild();

    BMCBUS_LOCAL RegistrationType Type() const;
    BMCBUS_LOCAL void TakeOver(void* context, Function function);
    BMCBUS_LOCAL void Publish(RegistrationType type);
    BMCBUS_LOCAL void BecomeLoopThread();
    BMCBUS_LOCAL void ForgetThread(pthread_t ended);
    BMCBUS_LOCAL std::shared_ptr<Watch> TakeIdleWatch(const boost::asio::io_context& context);
    BMCBUS_LOCAL std::shared_ptr<Watch> NewWatch(boost::asio::io_context& context);
    BMCBUS_LOCAL void WaitForIO(std::shared_ptr<Watch> owner);
    BMCBUS_LOCAL void GiveUpWatch();
    BMCBUS_LOCAL void ForgetIdleWatches();
    BMCBUS_LOCAL void EndZLoopWatch();

    // Not hidden: TriggerReadPipeNoLock is inline.
    int WriteTrigger(const char (&bytes)[2]);
    BMCBUS_LOCAL int Post(Function&& function, void* data, unsigned long size, bool freeData);
    BMCBUS_LOCAL bool ReserveRoom();
    BMCBUS_LOCAL bool FindRoom();
    BMCBUS_LOCAL int Reserved() const;
    BMCBUS_LOCAL int WriteIntoRoom(const char (&bytes)[2]);
    BMCBUS_LOCAL int WriteIfRoom(const char (&bytes)[2]);
    BMCBUS_LOCAL int WaitForRoomAndTrigger(std::unique_lock<std::mutex>& lock);
    BMCBUS_LOCAL int Wake(std::unique_lock<std::mutex>& lock) noexcept;
    BMCBUS_LOCAL int WakeOnce(std::unique_lock<std::mutex>& lock) noexcept;
    BMCBUS_LOCAL int TriggerOnce(std::unique_lock<std::mutex>& lock);
    BMCBUS_LOCAL void LetProducersOn();
    BMCBUS_LOCAL bool OnLoopThread() const;
    BMCBUS_LOCAL bool RunNext(void* context);
    BMCBUS_LOCAL void WakeAgain() noexcept;

    // The thread that drains, also where loopTid is not published.
    pthread_t drainTid_;
    // How many more triggers surely fit into the pipe, and whether the last one did not. Under the
    // operation mutex.
    int credit_ = 0;
    bool noRoom_ = false;
    // For how many triggers room was reserved, under the operation mutex, and how many of these
    // were written since, each by a thread of its own.
    std::atomic<unsigned int> reserved_ = 0;
    std::atomic<unsigned int> written_ = 0;
    // Of a registration that is woken once for a burst: whether it is, whether that has happened
    // since the queue was last found empty, and producers that wait for room in the queue. Under
    // the operation mutex.
    bool wakeOnce_ = false;
    bool woken_ = false;
    int waiting_ = 0;
    std::condition_variable roomInQueue_;
    // The asio registration in force; owned by the handler of its wait.
    Watch* watch_ = nullptr;
    // Those of ended registrations whose wait goes on. Under the operation mutex.
    Watch* idleWatches_ = nullptr;
    // In a child: the parent's channel of one generation before.
    OneWayChannel* earlier_ = nullptr;
};

inline int OneWayChannel::TriggerReadPipeNoLock()
{
    static const char buf[2] = {'R', '\0'};
    return WriteTrigger(buf);
}

/** What `zloop_poller` gets. Forwards to the channel @p arg, unless it is a forked parent's. */
BMCBUS_EXPORT int _OneWayChannelZLoopFunctionHandler(zloop_t* loop, zmq_pollitem_t* item,
                                                     void* arg);

} // namespace infrautils

/**
 * Makes the calling thread's own poll loop drive the channel; no watch is made.
 *
 * Poll @p fd for reading and call `OneWayChannel_Process` when it is readable. Takes the place of
 * any other registration without asking. Does not block.
 *
 * @param[out] fd  the channel's read end, which stays the channel's
 * @return 0
 */
BMCBUS_EXPORT int OneWayChannel_GetChannelFDAndSelfRegister(int* fd, void* context);

extern "C"
{
#endif

    /**
     * Lets an sd-event loop drive the channel. Call it on the loop's thread; it works once in a
     * process, its children included. Does not block.
     *
     * Takes a reference to @p event for the life of the process.
     *
     * @return 0, also when another kind is registered, which is logged; 2 when it was called
     * before; 5 after an exception, which is logged
     */
    BMCBUS_EXPORT int OneWayChannel_RegisterSDEvent(sd_event* event, void* context);

    /**
     * Lets a `zloop` drive the channel. Call it on the loop's thread; the loop must outlive the
     * registration. Does not block.
     *
     * @return 0, also when it was refused, which is logged; 5 after an exception, which is logged
     */
    BMCBUS_EXPORT int OneWayChannel_RegisterZLoop(zloop_t* loop, void* context);

    /** The same with a default function, which may be null. */
    BMCBUS_EXPORT int
    OneWayChannel_RegisterZLoopWithDefaultFunction(zloop_t* loop, void* context,
                                                   OneWayChannelFunction function);

    /**
     * As OneWayChannel_GetChannelFDAndSelfRegister(), which C cannot call, with a default
     * function, which may be null.
     */
    BMCBUS_EXPORT int
    OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(int* fd, void* context,
                                                                 OneWayChannelFunction function);

    /**
     * Queues a message. Any thread; a producer waits while the pipe is full. It is no cancellation
     * point.
     *
     * @param function  may be null: its message is logged when it is processed
     * @param data  the producer's until the function has run
     * @param freeData  not 0: @p data is from malloc() and released after the function ran
     * @return 0; 3 when nothing is registered, with nothing queued and nothing released; 6 when
     * the trigger could not be written, with the message queued for a later wake-up
     */
    BMCBUS_EXPORT int OneWayChannel_Execute(OneWayChannelFunction function, void* data,
                                            unsigned long size, int freeData);

    /** Queues a message for the default function. @return as above, 3 also without one */
    BMCBUS_EXPORT int OneWayChannel_ExecuteDefault(void* data, unsigned long size, int freeData);

    /**
     * Runs what is queued, in the caller's own poll loop when @p fd is readable. Blocks while the
     * pipe is empty.
     *
     * @return 0; 1 after an exception outside of the functions, which is logged; 3 for another
     * kind of registration; 7 when @p fd could not be read, which is logged
     */
    BMCBUS_EXPORT int OneWayChannel_Process(int fd);

    /**
     * Has the registration in force wake its loop once for a burst of messages, and not for each:
     * many posts in a row cost a fraction then. On the loop's thread, after registering; ends with
     * the registration. All else stays as it is. Does not block.
     *
     * @return 0; 3 when nothing is registered, which is logged
     */
    BMCBUS_EXPORT int OneWayChannel_WakeOncePerBurst(void);

    /** Ends the registration. On the loop's thread, also inside a message's function. */
    BMCBUS_EXPORT void OneWayChannel_Unregister(void);

    /**
     * Tells whether a loop is registered, and on which thread. Any thread; does not block.
     *
     * @param[out] tidValid  whether @p tid is set; false for the caller's own poll loop, and once
     * the thread that registered has ended
     */
    BMCBUS_EXPORT void OneWayChannel_IsRegistered(bool* registered, bool* tidValid, pthread_t* tid);

#ifdef __cplusplus
}
#endif

#endif
