// The funnel thread and the hand-over to it. One condition variable carries all events, and every
// waiter looks again at its own flag.

#include "threads/threadfunnel_thread.hpp"

#include "threads/fork_handlers.hpp"
#include "threads/signals_blocked.hpp"
#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_log.hpp"

#include <pthread.h>
#include <sched.h>

#include <exception>
#include <memory>

namespace bmcbus::funnel
{

namespace
{

constexpr int maxAttempts = 10;

constexpr const char* funnelThread = "TF_funnel_thread";

int TF_do_wait()
{
    const int irv = pthread_cond_wait(&state.cond, &state.condLock);
    if (irv != 0)
    {
        FUNNEL_LOG(failure, "pthread_cond_wait irv=%d", irv);
    }
    return irv;
}

// A broadcast that is lost would leave its waiter asleep for good, so a failed one is repeated.
void TF_do_broadcast()
{
    for (int attempt = 0; attempt < maxAttempts; ++attempt)
    {
        const int irv = pthread_cond_broadcast(&state.cond);
        if (irv == 0)
        {
            return;
        }
        FUNNEL_LOG(failure, "pthread_cond_broadcast irv=%d", irv);
        sched_yield();
    }
}

// A sender's wait, under the condition lock.
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
    int irv = pthread_key_create(&state.key, DeleteContext);
    for (int failed = 1; irv != 0 && failed < maxAttempts; ++failed)
    {
        sched_yield();
        irv = pthread_key_create(&state.key, DeleteContext);
    }
    if (irv != 0)
    {
        FUNNEL_LOG(failure, "key creation failed");
        state.onceEnded = true;
        return;
    }
    state.keyValid = true;
    irv = InstallForkHandlers();
    if (irv != 0)
    {
        FUNNEL_LOG(failure, "pthread_atfork failed, irv=%d", irv);
    }
    state.handlersReady = true;
    state.onceEnded = true;
}

TF_context* OwnContext()
{
    if (void* const present = pthread_getspecific(state.key); present != nullptr)
    {
        return static_cast<TF_context*>(present);
    }
    auto context = std::make_unique<TF_context>();
    if (const int irv = pthread_setspecific(state.key, context.get()); irv != 0)
    {
        FUNNEL_LOG_AS(failure, "TF_get_or_allocate_ctx", "pthread_setspecific irv=%d", irv);
        return nullptr;
    }
    return context.release();
}

TF_context* TF_get_or_allocate_ctx()
{
    try
    {
        FUNNEL_LOG(trace, "enter");
        if (!TF_setup_key_and_atfork())
        {
            FUNNEL_LOG(failure, "unable to setup key and atfork\n");
            return nullptr;
        }
        TF_context* const context = OwnContext();
        FUNNEL_LOG(trace, "leave");
        return context;
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_EXCEPTION_IN(FUNNEL_LOG_FILE, bmcbus::log::librarySource, "\n", e.what());
        return nullptr;
    }
}

// For a funnel thread that ends. Nobody joins it, so it leaves nothing to join; its id may then
// come back as another thread's and must not be taken for the funnel's.
void LeaveFunnel()
{
    {
        const DeadlockLock lock;
        if (IsThread(funnel_tid, funnel_tid_valid, pthread_self()))
        {
            ClearThread(funnel_tid_valid);
        }
    }
    pthread_detach(pthread_self());
}

// Start-up of the funnel thread, up to the announcement.
bool Begin()
{
    {
        const DeadlockLock lock;
        SetThread(funnel_tid, funnel_tid_valid, pthread_self());
    }
    TF_cond_lock();
    TF_context* const context = TF_get_or_allocate_ctx();
    if (context == nullptr)
    {
        FUNNEL_LOG_AS(failure, funnelThread, "pcontext is NULL");
    }
    else
    {
        context->is_funnel_thread = true;
    }
    state.threadStarted = true;
    state.context = context;
    FUNNEL_LOG_AS(trace, funnelThread, "before startup broadcast");
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
        FUNNEL_LOG_AS(trace, funnelThread, "no need to wait");
    }
    std::function<void()>* const work = TF_function;
    if (work == nullptr)
    {
        FUNNEL_LOG_AS(trace, funnelThread, "no work");
    }
    else
    {
        state.workDone = false;
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
        state.workDone = true;
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
    FUNNEL_LOG(trace, "enter");
    if (!Begin())
    {
        LeaveFunnel();
        return nullptr;
    }
    FUNNEL_LOG(trace, "before loop");
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
            if (state.context == nullptr)
            {
                FUNNEL_LOG(failure, "funnel_context is NULL");
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
                state.context = nullptr;
                LeaveFunnel();
                throw;
            }
            FUNNEL_LOG_EXCEPTION(foreignException);
        }
    }
}

int CreateThread()
{
    const SignalsBlocked inherited;
    pthread_t thread{};
    return pthread_create(&thread, nullptr, TF_funnel_thread, nullptr);
}

void TF_start_funnel_thread()
{
    TF_cond_lock();
    state.threadStarted = false;
    if (const int irv = CreateThread(); irv != 0)
    {
        TF_cond_unlock();
        FUNNEL_LOG(failure, "pthread_create irv=%d", irv);
        return;
    }
    WaitUntil(state.threadStarted);
    if (state.context == nullptr)
    {
        state.threadStarted = false;
    }
    TF_cond_unlock();
}

void TF_send_work(std::function<void()>& work)
{
    TF_cond_lock();
    while (TF_function != nullptr)
    {
        FUNNEL_LOG(trace, "pending");
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
    WaitUntil(state.workDone);
    state.workDone = false;
    TF_cond_unlock();
}

__attribute__((destructor)) void TF_per_thread_library_destructor()
{
    if (state.keyValid.exchange(false))
    {
        if (const int irv = pthread_key_delete(state.key); irv != 0)
        {
            FUNNEL_LOG(failure, "pthread_key_delete failed with irv=%d", irv);
        }
    }
}

} // namespace

bool StartThreadIfNeeded()
{
    if (state.context == nullptr)
    {
        FUNNEL_LOG_AS(trace, "TF_start_funnel_thread_if_needed", "starting funnel thread");
        TF_start_funnel_thread();
    }
    return state.context != nullptr;
}

void RunOnFunnelThread(std::function<void()>& work)
{
    TF_send_work(work);
    AwaitWorkDone();
}

} // namespace bmcbus::funnel

bool TF_setup_key_and_atfork()
{
    using bmcbus::funnel::state;
    const bmcbus::NoCancellation wholeRoutine;
    try
    {
        pthread_once(&state.once, bmcbus::funnel::TF_call_me_once);
        if (!state.keyValid)
        {
            FUNNEL_LOG(failure, "key is not valid");
            return false;
        }
        if (!state.handlersReady)
        {
            FUNNEL_LOG(failure, "atfork is not ready");
            return false;
        }
        return true;
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG_EXCEPTION_IN(FUNNEL_LOG_FILE, bmcbus::log::librarySource, "\n", e.what());
        return false;
    }
}
