// What callers of the funnel see. A send that could not end is refused; any other waits for its
// turn (threadfunnel_line.cpp) and for its item (threadfunnel_thread.cpp).

#include "threadfunnel.hpp"

#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_line.hpp"
#include "threads/threadfunnel_log.hpp"
#include "threads/threadfunnel_thread.hpp"

#include <pthread.h>

#include <exception>
#include <optional>

using bmcbus::funnel::IsThread;
using bmcbus::funnel::state;

void TF_init_and_send_work(std::function<void()>& work)
{
    std::optional<bmcbus::NoCancellation> wholeSend(std::in_place);
    bmcbus::funnel::OwnState();
    if (IsThread(funnel_tid, funnel_tid_valid, pthread_self()))
    {
        FUNNEL_LOG(info, "running direct because current thread is funnel thread\n");
        wholeSend.reset();
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
    const bmcbus::funnel::SendTurn turn;
    if (turn.TheVerdict().Refused())
    {
        turn.TheVerdict().Report();
        FUNNEL_LOG_TWICE(failure, "deadlock detected\n");
        return;
    }
    if (!bmcbus::funnel::StartThreadIfNeeded())
    {
        FUNNEL_LOG(failure, "funnel thread didn't start");
        return;
    }
    bmcbus::funnel::RunOnFunnelThread(work);
}

bool TF_check_for_deadlock()
{
    bmcbus::funnel::OwnState();
    TF_deadlock_lock();
    const bmcbus::funnel::Verdict verdict = bmcbus::funnel::Judge();
    TF_deadlock_unlock();
    verdict.Report(); // without the lock: the thread may be cancelled there
    return verdict.Refused();
}

bool TF_check_for_deadlock_in_callback()
{
    bmcbus::funnel::OwnState();
    bool deadlock = false;
    const bool blocked = state.protectedThreadValid.load(std::memory_order_acquire);
    const pthread_t sender = state.protectedThread.load(std::memory_order_relaxed);
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
    const bmcbus::funnel::DeadlockLock lock;
    state.protectedThread.store(pthread_self(), std::memory_order_relaxed);
    state.protectedThreadValid.store(true, std::memory_order_release);
}

void TF_end_deadlock_protection()
{
    const bmcbus::funnel::DeadlockLock lock;
    state.protectedThreadValid.store(false, std::memory_order_release);
}

void TF_poc()
{
    FUNNEL_LOG(trace, "enter");
    std::function<void()> work = [] { FUNNEL_LOG_AS(trace, "operator()", "poc"); };
    TF_init_and_send_work(work);
    FUNNEL_LOG(trace, "leave");
}
