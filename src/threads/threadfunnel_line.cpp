// The line of senders and forks. A mutex alone would be taken again by the thread that just
// released it, again and again; here the turn goes to who has waited longest.
//
// To check for a deadlock and to begin to wait are one step, under the deadlock lock. The danger is
// the channel's thread L: when it waits here behind a send S over the channel, S waits for L.
// Before S waits for L it names L and passes over whoever stands in the line and is L, in one step
// too. If L joined before that step, it is passed over; if it joins after, Judge() finds the name.
// There is no third case, whichever send is the first to name L.

#include "threads/threadfunnel_line.hpp"

#include "threads/threadfunnel_log.hpp"

#include <cerrno>

namespace bmcbus::funnel
{

namespace
{

bool IsProtected(pthread_t tid)
{
    return state.protectedThreadValid.load(std::memory_order_acquire) &&
           pthread_equal(state.protectedThread.load(std::memory_order_relaxed), tid) != 0;
}

// Under the deadlock lock.
void PassOverLoopThread()
{
    Line& line = state.line;
    Place* kept = nullptr;
    for (Place* place = line.first; place != nullptr;)
    {
        Place* const next = place->next;
        if (IsThread(owc_tid, owc_tid_valid, place->thread))
        {
            (kept != nullptr ? kept->next : line.first) = next;
            place->passedOver = true;
            sem_post(&place->called); // from here on it may be gone
        }
        else
        {
            kept = place;
        }
        place = next;
    }
    line.last = kept;
}

} // namespace

void Verdict::Report() const
{
    constexpr const char* function = "TF_check_for_deadlock";
    if (isFunnelThread)
    {
        FUNNEL_LOG_TWICE_AS(failure, function, "deadlock A detected\n");
    }
    if (isLoopThread)
    {
        FUNNEL_LOG_TWICE_AS(failure, function, "deadlock D detected\n");
    }
    if (isProtected)
    {
        FUNNEL_LOG_TWICE_AS(failure, function, "deadlock B detected\n");
    }
}

Verdict Judge()
{
    const pthread_t self = pthread_self();
    return {.isFunnelThread = IsThread(funnel_tid, funnel_tid_valid, self),
            .isLoopThread = IsThread(owc_tid, owc_tid_valid, self) || thisThread.runsChannelItem,
            .isProtected = IsProtected(self)};
}

bool Join(Place& place)
{
    Line& line = state.line;
    if (!line.taken)
    {
        line.taken = true;
        return false;
    }
    place.thread = pthread_self();
    place.next = nullptr;
    place.passedOver = false;
    sem_init(&place.called, 0, 0);
    (line.last != nullptr ? line.last->next : line.first) = &place;
    line.last = &place;
    return true;
}

bool AwaitTurn(Place& place)
{
    while (sem_wait(&place.called) != 0 && errno == EINTR)
    {
    }
    sem_destroy(&place.called);
    return !place.passedOver;
}

void LeaveLine()
{
    Place* next = nullptr;
    {
        const DeadlockLock lock;
        Line& line = state.line;
        line.awaitsLoop = false;
        next = line.first;
        if (next == nullptr)
        {
            line.taken = false;
            return;
        }
        line.first = next->next;
        line.last = line.first != nullptr ? line.last : nullptr;
    }
    sem_post(&next->called);
}

SendTurn::SendTurn()
{
    bool wait = false;
    {
        const DeadlockLock lock;
        verdict = Judge();
        wait = !verdict.Refused() && Join(place);
    }
    if (wait && !AwaitTurn(place))
    {
        verdict.isLoopThread = true;
    }
    if (!verdict.Refused())
    {
        TF_lock();
        TF_start_deadlock_protection();
    }
}

SendTurn::~SendTurn()
{
    if (!verdict.Refused())
    {
        TF_end_deadlock_protection();
        TF_unlock();
        LeaveLine();
    }
}

void SendTurn::AwaitLoop(bool (*loopThread)(pthread_t& tid))
{
    const DeadlockLock lock;
    pthread_t loop{};
    if (loopThread(loop))
    {
        SetThread(owc_tid, owc_tid_valid, loop);
    }
    else
    {
        ClearThread(owc_tid_valid); // it was named before it ended
    }
    state.line.awaitsLoop = true;
    PassOverLoopThread();
}

} // namespace bmcbus::funnel
