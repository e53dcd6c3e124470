// The funnel's state and its locks. All of it has static initialisers, so that any initialiser of
// the program may send, and all of it can be renewed in a child.

#include "threads/threadfunnel_state.hpp"

#include "threads/threadfunnel_log.hpp"

#include <sched.h>
#include <unistd.h>

constinit std::function<void()>* TF_function = nullptr;
constinit pthread_t funnel_tid{};
constinit bool funnel_tid_valid = false;
constinit pthread_t owc_tid{};
constinit bool owc_tid_valid = false;
constinit unsigned int TF_alternate_log_source = 0;

namespace bmcbus::funnel
{

constinit State state;
constinit thread_local ThisThread thisThread;

namespace
{

constexpr pid_t busy = -1;

void Lock(pthread_mutex_t& mutex, const char* function)
{
    if (const int irv = pthread_mutex_lock(&mutex); irv != 0)
    {
        FUNNEL_LOG_AS(failure, function, "pthread_mutex_lock irv=%d", irv);
    }
}

void Unlock(pthread_mutex_t& mutex, const char* function)
{
    if (const int irv = pthread_mutex_unlock(&mutex); irv != 0)
    {
        FUNNEL_LOG_AS(failure, function, "pthread_mutex_unlock irv=%d", irv);
    }
}

void BeginAnew()
{
    pthread_mutex_init(&state.mainLock, nullptr);
    pthread_mutex_init(&state.deadlockLock, nullptr);
    pthread_mutex_init(&state.condLock, nullptr);
    constexpr pthread_once_t fresh = PTHREAD_ONCE_INIT;
    if (!state.onceEnded)
    {
        state.once = fresh;
    }
    if (!state.handlersInstalled)
    {
        state.handlersOnce = fresh;
    }
    ForgetThreads();
    ForgetContext();
}

} // namespace

TF_context::TF_context() : is_funnel_thread(false)
{
    FUNNEL_LOG(trace, "enter");
}

TF_context::~TF_context()
{
    FUNNEL_LOG(trace, "enter");
    if (is_funnel_thread)
    {
        FUNNEL_LOG(trace, "clear is_funnel_thread");
        is_funnel_thread = false;
        TF_lock();
        // By the time an ended funnel thread gets here, a later send may have started the next.
        TF_context* self = this;
        state.context.compare_exchange_strong(self, nullptr);
        TF_unlock();
    }
}

void SetThread(pthread_t& tid, bool& valid, pthread_t value)
{
    std::atomic_ref(tid).store(value, std::memory_order_relaxed);
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

void ForgetLoopThread(pthread_t ended)
{
    OwnState();
    const DeadlockLock lock;
    if (IsThread(owc_tid, owc_tid_valid, ended))
    {
        ClearThread(owc_tid_valid);
    }
}

void OwnState()
{
    // The C library knows the thread's id, of which this clock's is made: no system call.
    clockid_t thread{};
    if (pthread_getcpuclockid(pthread_self(), &thread) == 0 && thread == thisThread.checked)
    {
        return;
    }
    const pid_t self = getpid();
    pid_t owner = state.process.load(std::memory_order_acquire);
    while (owner != self)
    {
        if (owner == busy)
        {
            sched_yield();
            owner = state.process.load(std::memory_order_acquire);
        }
        else if (state.process.compare_exchange_strong(owner, owner == 0 ? self : busy))
        {
            if (owner != 0)
            {
                BeginAnew();
                state.process.store(self, std::memory_order_release);
            }
            owner = self;
        }
    }
    thisThread.checked = thread;
}

void ForgetThreads()
{
    ClearThread(owc_tid_valid);
    ClearThread(funnel_tid_valid);
    if (pthread_equal(state.protectedThread, pthread_self()) == 0)
    {
        state.protectedThreadValid = false;
    }
    state.line = {};
    TF_function = nullptr;
    state.workDone = false;
    // The copy still counts the parent's threads as waiters, and a broadcast could wait for them.
    pthread_cond_init(&state.cond, nullptr);
}

void ForgetContext()
{
    constexpr const char* function = "TF_atfork_child";
    if (TF_context* const context = state.context; context != nullptr)
    {
        FUNNEL_LOG_AS(trace, function, "before free funnel_context");
        delete context;
        state.context = nullptr;
    }
    if (state.threadStarted)
    {
        FUNNEL_LOG_AS(trace, function, "before set funnel_initialized to false");
        state.threadStarted = false;
    }
}

unsigned int AlternateLogSource()
{
    return std::atomic_ref(TF_alternate_log_source).load(std::memory_order_relaxed);
}

} // namespace bmcbus::funnel

using bmcbus::funnel::Lock;
using bmcbus::funnel::state;
using bmcbus::funnel::Unlock;

void TF_lock()
{
    Lock(state.mainLock, __func__);
}

void TF_unlock()
{
    Unlock(state.mainLock, __func__);
}

void TF_cond_lock()
{
    Lock(state.condLock, __func__);
}

void TF_cond_unlock()
{
    Unlock(state.condLock, __func__);
}

void TF_deadlock_lock()
{
    Lock(state.deadlockLock, __func__);
}

void TF_deadlock_unlock()
{
    Unlock(state.deadlockLock, __func__);
}

void TF_set_alternate_log_source(unsigned int source)
{
    std::atomic_ref(TF_alternate_log_source).store(source, std::memory_order_relaxed);
}
