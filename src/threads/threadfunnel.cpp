// The state is a handful of plain globals with static initialisers, usable from any initialiser of
// the program. A sender holds the main lock for the whole of its send and waits on the one
// condition variable, which carries all three events: thread started, work posted, work done.

#include "threadfunnel.hpp"

#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_internal.hpp"

#include <pthread.h>
#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <memory>

constinit std::function<void()>* TF_function = nullptr;
constinit pthread_t funnel_tid{};
constinit bool funnel_tid_valid = false;
constinit pthread_t owc_tid{};
constinit bool owc_tid_valid = false;
constinit unsigned int TF_alternate_log_source = 0;

constinit std::atomic<bool> bmcbus::funnel::channelSend{false};
constinit thread_local bool bmcbus::funnel::runsChannelItem = false;

namespace
{

// Lock order as listed. The deadlock mutex guards the thread identities, the condition mutex the
// hand-over: TF_function and the two flags.
constinit pthread_mutex_t funnel_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_mutex_t funnel_deadlock_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_mutex_t funnel_cond_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t funnel_cond = PTHREAD_COND_INITIALIZER;

constinit bool funnel_work_done = false;
constinit bool funnel_initialized = false;

constinit std::atomic<pthread_t> protection_tid{};
constinit std::atomic<bool> protection_tid_valid{false};

constinit pthread_once_t funnel_once = PTHREAD_ONCE_INIT;
constinit pthread_key_t funnel_key{};
constinit std::atomic<bool> funnel_key_valid{false};
constinit std::atomic<bool> funnel_atfork_ready{false};
constinit std::atomic<bool> onceRoutineEnded{false};

// The funnel thread's mark; owned by that thread through funnel_key.
class TF_context
{
  public:
    TF_context();
    ~TF_context();
    TF_context(const TF_context&) = delete;
    TF_context& operator=(const TF_context&) = delete;

    bool is_funnel_thread;
};

// Null while there is no working funnel thread.
constinit std::atomic<TF_context*> funnel_context{nullptr};

// The process that the state belongs to; 0 before the first send, busy while it is being reset.
constinit std::atomic<pid_t> funnel_process{0};
constexpr pid_t busy = -1;

// How often the calling thread holds the sends out, and whether it does so without the main lock.
constinit thread_local unsigned int sendsHeld = 0;
constinit thread_local bool withoutMainLock = false;

// How many of our own handlers are running in the calling thread's fork: a child that was forked
// inside the once-routine runs it again and may then have them registered twice.
constinit thread_local unsigned int handlersEntered = 0;

constexpr int maxAttempts = 10;

constexpr const char* funnelThread = "TF_funnel_thread";

#define FUNNEL_THREAD_LOG(level, text)                                                             \
    BMCBUS_LOG_AS(level, bmcbus::log::librarySource, funnelThread, text)

// Nests.
void HoldMainLock()
{
    if (sendsHeld++ == 0)
    {
        TF_lock();
    }
}

void ReleaseMainLock()
{
    if (sendsHeld != 0 && --sendsHeld != 0)
    {
        return;
    }
    if (withoutMainLock)
    {
        withoutMainLock = false;
        return;
    }
    TF_unlock();
}

TF_context::TF_context() : is_funnel_thread(false)
{
    BMCBUS_LOG(trace, "enter");
}

TF_context::~TF_context()
{
    BMCBUS_LOG(trace, "enter");
    if (is_funnel_thread)
    {
        BMCBUS_LOG(trace, "clear is_funnel_thread");
        is_funnel_thread = false;
        HoldMainLock();
        // By the time an ended funnel thread gets here, a later send may have started the next.
        TF_context* self = this;
        funnel_context.compare_exchange_strong(self, nullptr);
        ReleaseMainLock();
    }
}

// The identities are read without a lock in places, hence the atomic access; flag after value.
void SetThread(pthread_t& tid, bool& valid)
{
    std::atomic_ref(tid).store(pthread_self(), std::memory_order_relaxed);
    std::atomic_ref(valid).store(true, std::memory_order_release);
}

void ClearThread(bool& valid)
{
    std::atomic_ref(valid).store(false, std::memory_order_release);
}

bool IsThread(pthread_t& tid, bool& valid, pthread_t other)
{
    return std::atomic_ref(valid).load(std::memory_order_acquire) &&
           pthread_equal(std::atomic_ref(tid).load(std::memory_order_relaxed), other) != 0;
}

bool IsProtected(pthread_t tid)
{
    return protection_tid_valid.load(std::memory_order_acquire) &&
           pthread_equal(protection_tid.load(std::memory_order_relaxed), tid) != 0;
}

void Lock(pthread_mutex_t& mutex, const char* function)
{
    if (const int irv = pthread_mutex_lock(&mutex); irv != 0)
    {
        BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, function, "pthread_mutex_lock irv=%d",
                      irv);
    }
}

void Unlock(pthread_mutex_t& mutex, const char* function)
{
    if (const int irv = pthread_mutex_unlock(&mutex); irv != 0)
    {
        BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, function, "pthread_mutex_unlock irv=%d",
                      irv);
    }
}

bool TF_cond_trylock()
{
    const int irv = pthread_mutex_trylock(&funnel_cond_mutex);
    if (irv != 0)
    {
        BMCBUS_LOG(trace, "pthread_mutex_trylock irv=%d, not necessarily an error", irv);
    }
    return irv == 0;
}

int TF_do_wait()
{
    const int irv = pthread_cond_wait(&funnel_cond, &funnel_cond_mutex);
    if (irv != 0)
    {
        BMCBUS_LOG(failure, "pthread_cond_wait irv=%d", irv);
    }
    return irv;
}

// A broadcast that is lost would leave its waiter asleep for good, so a failed one is repeated.
void TF_do_broadcast()
{
    for (int attempt = 0; attempt < maxAttempts; ++attempt)
    {
        const int irv = pthread_cond_broadcast(&funnel_cond);
        if (irv == 0)
        {
            return;
        }
        BMCBUS_LOG(failure, "pthread_cond_broadcast irv=%d", irv);
        sched_yield();
    }
}

// A sender's wait, under the condition mutex.
void WaitUntil(const bool& happened)
{
    while (!happened)
    {
        if (TF_do_wait() != 0)
        {
            // A failed wait has not given the mutex up, and the funnel thread needs it.
            TF_cond_unlock();
            sched_yield();
            TF_cond_lock();
        }
    }
}

void DeleteContext(void* context)
{
    delete static_cast<TF_context*>(context);
}

void TF_call_me_once()
{
    int irv = pthread_key_create(&funnel_key, DeleteContext);
    for (int failed = 1; irv != 0 && failed < maxAttempts; ++failed)
    {
        sched_yield();
        irv = pthread_key_create(&funnel_key, DeleteContext);
    }
    if (irv != 0)
    {
        BMCBUS_LOG(failure, "key creation failed");
        onceRoutineEnded = true;
        return;
    }
    funnel_key_valid = true;
    irv = pthread_atfork(TF_atfork_prepare, TF_atfork_parent, TF_atfork_child);
    if (irv != 0)
    {
        BMCBUS_LOG(failure, "pthread_atfork failed, irv=%d", irv);
    }
    funnel_atfork_ready = true;
    onceRoutineEnded = true;
}

TF_context* OwnContext()
{
    if (void* const present = pthread_getspecific(funnel_key); present != nullptr)
    {
        return static_cast<TF_context*>(present);
    }
    auto context = std::make_unique<TF_context>();
    if (const int irv = pthread_setspecific(funnel_key, context.get()); irv != 0)
    {
        BMCBUS_LOG_AS(failure, bmcbus::log::librarySource, "TF_get_or_allocate_ctx",
                      "pthread_setspecific irv=%d", irv);
        return nullptr;
    }
    return context.release();
}

TF_context* TF_get_or_allocate_ctx()
{
    try
    {
        BMCBUS_LOG(trace, "enter");
        if (!TF_setup_key_and_atfork())
        {
            BMCBUS_LOG(failure, "unable to setup key and atfork\n");
            return nullptr;
        }
        if (!funnel_key_valid)
        {
            BMCBUS_LOG(failure, "key is not valid");
            return nullptr;
        }
        if (!funnel_atfork_ready)
        {
            BMCBUS_LOG(failure, "atfork is not ready");
            return nullptr;
        }
        TF_context* const context = OwnContext();
        BMCBUS_LOG(trace, "leave");
        return context;
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_EXCEPTION(bmcbus::log::librarySource, "\n", e.what());
        return nullptr;
    }
}

// For a funnel thread that ends. Nobody joins it, so it leaves nothing to join; its id may then
// come back as another thread's and must not be taken for the funnel's.
void LeaveFunnel()
{
    TF_deadlock_lock();
    if (IsThread(funnel_tid, funnel_tid_valid, pthread_self()))
    {
        ClearThread(funnel_tid_valid);
    }
    TF_deadlock_unlock();
    pthread_detach(pthread_self());
}

// Start-up of the funnel thread, up to the announcement.
bool Begin()
{
    TF_deadlock_lock();
    SetThread(funnel_tid, funnel_tid_valid);
    TF_deadlock_unlock();
    TF_cond_lock();
    TF_context* const context = TF_get_or_allocate_ctx();
    if (context == nullptr)
    {
        FUNNEL_THREAD_LOG(failure, "pcontext is NULL");
    }
    else
    {
        context->is_funnel_thread = true;
    }
    funnel_initialized = true;
    funnel_context = context;
    FUNNEL_THREAD_LOG(trace, "before startup broadcast");
    TF_do_broadcast();
    TF_cond_unlock();
    return context != nullptr;
}

// The next item, or null when the wake-up brought none.
std::function<void()>* TakeItem()
{
    TF_cond_lock();
    if (TF_function == nullptr)
    {
        TF_do_wait();
    }
    else
    {
        FUNNEL_THREAD_LOG(trace, "no need to wait");
    }
    std::function<void()>* const work = TF_function;
    if (work == nullptr)
    {
        FUNNEL_THREAD_LOG(trace, "no work");
    }
    else
    {
        funnel_work_done = false;
        TF_function = nullptr;
    }
    TF_cond_unlock();
    return work;
}

// Releases the sender on every way out of its item.
struct WorkDone
{
    WorkDone() = default;
    ~WorkDone()
    {
        TF_cond_lock();
        funnel_work_done = true;
        TF_cond_unlock();
        TF_do_broadcast();
    }
    WorkDone(const WorkDone&) = delete;
    WorkDone& operator=(const WorkDone&) = delete;
};

void* TF_funnel_thread(void*)
{
    // Sends rely on this thread; an item that wants to end it does so by itself.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    BMCBUS_LOG(trace, "enter");
    if (!Begin())
    {
        LeaveFunnel();
        return nullptr;
    }
    BMCBUS_LOG(trace, "before loop");
    for (;;)
    {
        std::function<void()>* const work = TakeItem();
        if (work == nullptr)
        {
            continue;
        }
        const WorkDone done;
        try
        {
            if (funnel_context == nullptr)
            {
                BMCBUS_LOG(failure, "funnel_context is NULL");
            }
            else
            {
                (*work)();
            }
        }
        catch (const std::exception& e)
        {
            FUNNEL_LOG_EXCEPTION(e.what());
        }
        catch (...)
        {
            if (bmcbus::ThreadIsEnding())
            {
                // Its sender still holds the main lock, so the next one starts a thread.
                funnel_context = nullptr;
                LeaveFunnel();
                throw;
            }
            FUNNEL_LOG_EXCEPTION(bmcbus::funnel::foreignException);
        }
    }
}

void TF_start_funnel_thread()
{
    TF_cond_lock();
    funnel_initialized = false;
    pthread_t thread{};
    if (const int irv = pthread_create(&thread, nullptr, TF_funnel_thread, nullptr); irv != 0)
    {
        TF_cond_unlock();
        BMCBUS_LOG(failure, "pthread_create irv=%d", irv);
        return;
    }
    WaitUntil(funnel_initialized);
    if (funnel_context == nullptr)
    {
        funnel_initialized = false;
    }
    TF_cond_unlock();
}

void TF_start_funnel_thread_if_needed()
{
    if (funnel_context == nullptr)
    {
        BMCBUS_LOG(trace, "starting funnel thread");
        TF_start_funnel_thread();
    }
}

void TF_send_work(std::function<void()>& work)
{
    TF_cond_lock();
    while (TF_function != nullptr)
    {
        BMCBUS_LOG(trace, "pending");
        TF_cond_unlock();
        sched_yield();
        TF_cond_lock();
    }
    TF_function = &work;
    TF_cond_unlock();
    TF_do_broadcast();
}

void AwaitWorkDone()
{
    TF_cond_lock();
    WaitUntil(funnel_work_done);
    funnel_work_done = false;
    TF_cond_unlock();
}

// The parent's threads do not exist in the child, not even as waiters: the child's copy of the
// condition variable still counts the funnel thread, and a broadcast could wait for it.
void ForgetThreads()
{
    ClearThread(owc_tid_valid);
    ClearThread(funnel_tid_valid);
    bmcbus::funnel::channelSend = false;
    pthread_cond_init(&funnel_cond, nullptr);
}

void ForgetContext()
{
    constexpr const char* function = "TF_atfork_child";
    if (TF_context* const context = funnel_context; context != nullptr)
    {
        BMCBUS_LOG_AS(trace, bmcbus::log::librarySource, function, "before free funnel_context");
        delete context;
        funnel_context = nullptr;
    }
    if (funnel_initialized)
    {
        BMCBUS_LOG_AS(trace, bmcbus::log::librarySource, function,
                      "before set funnel_initialized to false");
        funnel_initialized = false;
    }
}

// The main lock for the channel's thread, unless it is held for a send that waits for this thread.
void LockUnlessAwaited()
{
    int irv = ETIMEDOUT;
    while (irv == ETIMEDOUT && !bmcbus::funnel::channelSend)
    {
        constexpr long soon = 1'000'000;
        constexpr long second = 1'000'000'000;
        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += soon;
        until.tv_sec += until.tv_nsec / second;
        until.tv_nsec %= second;
        irv = pthread_mutex_timedlock(&funnel_mutex, &until);
    }
    withoutMainLock = irv == ETIMEDOUT;
    if (irv != 0 && !withoutMainLock)
    {
        BMCBUS_LOG(failure, "pthread_mutex_lock irv=%d", irv);
    }
}

void HoldMainLockInFork()
{
    if (sendsHeld != 0)
    {
        ++sendsHeld;
        return;
    }
    bmcbus::funnel::OwnState();
    const pthread_t self = pthread_self();
    if (IsThread(funnel_tid, funnel_tid_valid, self) || bmcbus::funnel::runsChannelItem)
    {
        FUNNEL_LOG_TWICE(failure, "fork inside a work item waits for its own sender: deadlock\n");
    }
    else if (IsThread(owc_tid, owc_tid_valid, self))
    {
        LockUnlessAwaited();
        sendsHeld = 1;
        return;
    }
    HoldMainLock();
}

// Whether the calling handler is the last one of its fork. Somebody may call it by hand, with locks
// that no handler took.
bool EndsFork()
{
    return handlersEntered == 0 || --handlersEntered == 0;
}

// In a child whose copy of the locks is of no use. Whatever was locked stays so, so begin anew.
void StartAfresh()
{
    pthread_mutex_init(&funnel_mutex, nullptr);
    pthread_mutex_init(&funnel_deadlock_mutex, nullptr);
    pthread_mutex_init(&funnel_cond_mutex, nullptr);
    if (!onceRoutineEnded)
    {
        constexpr pthread_once_t fresh = PTHREAD_ONCE_INIT;
        funnel_once = fresh;
    }
    TF_function = nullptr;
    funnel_work_done = false;
    protection_tid_valid = false;
    ForgetThreads();
    ForgetContext();
}

__attribute__((destructor)) void TF_per_thread_library_destructor()
{
    if (funnel_key_valid.exchange(false))
    {
        if (const int irv = pthread_key_delete(funnel_key); irv != 0)
        {
            BMCBUS_LOG(failure, "pthread_key_delete failed with irv=%d", irv);
        }
    }
}

} // namespace

namespace bmcbus::funnel
{

unsigned int AlternateLogSource()
{
    return std::atomic_ref(TF_alternate_log_source).load(std::memory_order_relaxed);
}

void OwnState()
{
    // The C library knows the thread's id, of which this one is made, and so spares a system call.
    thread_local constinit clockid_t known{};
    clockid_t thread{};
    if (pthread_getcpuclockid(pthread_self(), &thread) == 0 && thread == known)
    {
        return;
    }
    const pid_t self = getpid();
    pid_t owner = funnel_process.load(std::memory_order_acquire);
    while (owner != self)
    {
        if (owner == busy)
        {
            sched_yield();
            owner = funnel_process.load(std::memory_order_acquire);
        }
        else if (funnel_process.compare_exchange_strong(owner, owner == 0 ? self : busy))
        {
            if (owner != 0)
            {
                StartAfresh();
                funnel_process.store(self, std::memory_order_release);
            }
            owner = self;
        }
    }
    known = thread;
}

// As long as the funnel's own handlers are not in place no send over the channel is under way,
// since it sees to them first. To wait for another one is dangerous then: an older C library lets
// the new funnel thread register nothing until fork() is through.
void HoldSends()
{
    if (sendsHeld != 0 || onceRoutineEnded)
    {
        HoldMainLockInFork();
    }
}

void ReleaseSends()
{
    if (sendsHeld != 0)
    {
        ReleaseMainLock();
    }
}

// The funnel's own handlers take no part in a fork that began before another thread had registered
// them; if they do, they come after this one or have put the state in order already.
void BeginInChild()
{
    if (handlersEntered == 0)
    {
        OwnState();
    }
}

SendTurn::SendTurn()
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    TF_lock();
    TF_start_deadlock_protection();
}

SendTurn::~SendTurn()
{
    TF_end_deadlock_protection();
    TF_unlock();
    pthread_setcancelstate(cancelState, nullptr);
}

} // namespace bmcbus::funnel

void TF_lock()
{
    Lock(funnel_mutex, __func__);
}

void TF_unlock()
{
    Unlock(funnel_mutex, __func__);
}

void TF_cond_lock()
{
    Lock(funnel_cond_mutex, __func__);
}

void TF_cond_unlock()
{
    Unlock(funnel_cond_mutex, __func__);
}

void TF_deadlock_lock()
{
    Lock(funnel_deadlock_mutex, __func__);
}

void TF_deadlock_unlock()
{
    Unlock(funnel_deadlock_mutex, __func__);
}

bool TF_setup_key_and_atfork()
{
    try
    {
        pthread_once(&funnel_once, TF_call_me_once);
        if (!funnel_key_valid)
        {
            BMCBUS_LOG(failure, "key is not valid");
            return false;
        }
        if (!funnel_atfork_ready)
        {
            BMCBUS_LOG(failure, "atfork is not ready");
            return false;
        }
        return true;
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_EXCEPTION(bmcbus::log::librarySource, "\n", e.what());
        return false;
    }
}

void TF_init_and_send_work(std::function<void()>& work)
{
    bmcbus::funnel::OwnState();
    TF_deadlock_lock();
    const bool direct = IsThread(funnel_tid, funnel_tid_valid, pthread_self());
    if (direct)
    {
        BMCBUS_LOG(info, "running direct because current thread is funnel thread\n");
    }
    TF_deadlock_unlock();
    if (direct)
    {
        try
        {
            work();
        }
        catch (const std::exception& e)
        {
            FUNNEL_LOG_EXCEPTION(e.what());
        }
        return;
    }
    if (TF_check_for_deadlock())
    {
        FUNNEL_LOG_TWICE(failure, "deadlock detected\n");
        return;
    }
    const bmcbus::funnel::SendTurn turn;
    TF_start_funnel_thread_if_needed();
    if (funnel_context == nullptr)
    {
        BMCBUS_LOG(failure, "funnel thread didn't start");
        return;
    }
    TF_send_work(work);
    AwaitWorkDone();
}

bool TF_check_for_deadlock()
{
    bmcbus::funnel::OwnState();
    const pthread_t self = pthread_self();
    bool deadlock = false;
    TF_deadlock_lock();
    if (IsThread(funnel_tid, funnel_tid_valid, self))
    {
        FUNNEL_LOG_TWICE(failure, "deadlock A detected\n");
        deadlock = true;
    }
    if (IsThread(owc_tid, owc_tid_valid, self))
    {
        FUNNEL_LOG_TWICE(failure, "deadlock D detected\n");
        deadlock = true;
    }
    if (IsProtected(self))
    {
        FUNNEL_LOG_TWICE(failure, "deadlock B detected\n");
        deadlock = true;
    }
    TF_deadlock_unlock();
    return deadlock;
}

bool TF_check_for_deadlock_in_callback()
{
    bmcbus::funnel::OwnState();
    bool deadlock = false;
    const bool blocked = protection_tid_valid.load(std::memory_order_acquire);
    const pthread_t sender = protection_tid.load(std::memory_order_relaxed);
    if (blocked && IsThread(funnel_tid, funnel_tid_valid, sender))
    {
        FUNNEL_LOG_TWICE(failure, "deadlock C detected\n");
        deadlock = true;
    }
    if (blocked && IsThread(owc_tid, owc_tid_valid, sender))
    {
        FUNNEL_LOG_TWICE(failure, "deadlock E detected\n");
        deadlock = true;
    }
    return deadlock;
}

void TF_start_deadlock_protection()
{
    bmcbus::funnel::OwnState();
    TF_deadlock_lock();
    protection_tid.store(pthread_self(), std::memory_order_relaxed);
    protection_tid_valid.store(true, std::memory_order_release);
    TF_deadlock_unlock();
}

void TF_end_deadlock_protection()
{
    TF_deadlock_lock();
    protection_tid_valid.store(false, std::memory_order_release);
    TF_deadlock_unlock();
}

void TF_atfork_prepare()
{
    BMCBUS_LOG(trace, "enter");
    if (handlersEntered++ != 0)
    {
        return;
    }
    for (;;)
    {
        HoldMainLockInFork();
        TF_deadlock_lock();
        if (TF_cond_trylock())
        {
            break;
        }
        TF_deadlock_unlock();
        ReleaseMainLock();
        BMCBUS_LOG(trace, "loop");
        sched_yield();
    }
    BMCBUS_LOG(trace, "got all three locks");
}

void TF_atfork_parent()
{
    BMCBUS_LOG(trace, "enter");
    if (!EndsFork())
    {
        return;
    }
    TF_cond_unlock();
    TF_deadlock_unlock();
    ReleaseMainLock();
}

void TF_atfork_child()
{
    BMCBUS_LOG(trace, "enter");
    if (!EndsFork())
    {
        return;
    }
    if (withoutMainLock)
    {
        StartAfresh();
        ReleaseMainLock();
    }
    else
    {
        ForgetThreads();
        TF_cond_unlock();
        TF_deadlock_unlock();
        ReleaseMainLock();
        ForgetContext();
    }
    funnel_process.store(getpid(), std::memory_order_release);
}

void TF_set_alternate_log_source(unsigned int source)
{
    std::atomic_ref(TF_alternate_log_source).store(source, std::memory_order_relaxed);
}

void TF_poc()
{
    BMCBUS_LOG(trace, "enter");
    std::function<void()> work = []
    { BMCBUS_LOG_AS(trace, bmcbus::log::librarySource, "operator()", "poc"); };
    TF_init_and_send_work(work);
    BMCBUS_LOG(trace, "leave");
}
