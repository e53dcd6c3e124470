// The line of senders and forks. A mutex alone would be taken again by the thread that just
// released it, again and again; here the turn goes to whoever has waited longest.
//
// Why no two sends can wait for each other. The danger is the thread of the channel's loop, L. A
// send S over the channel waits for L to run its item; if L sends, too, and waits in the line
// behind S, both wait for ever. So S, before it waits, writes down who L is and sends L away if it
// stands in the line; and L, before it stands in the line, looks whether it is written down. Both
// are one step each under the deadlock lock. If L comes first it is sent away, if S comes first L
// finds itself written down and is refused: there is no third case.

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
