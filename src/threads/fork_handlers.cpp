// What fork() means to funnel and channel: the whole story, and the one set of handlers.
//
// fork() copies the memory and, of all threads, only the one that called it. Whatever another
// thread had locked or half written would stay so in the child for ever. So nobody else may be at
// work when it happens: the handler before takes everything, in this order,
//
//     1. a turn in the line (threadfunnel_line.cpp)   no send is under way
//     2. the main lock                                nor anybody between TF_lock and TF_unlock
//     3. the deadlock lock                            names and line are at rest
//     4. the condition lock                           the funnel thread sleeps, or runs no item
//     5. the channel's locks (a ForkParticipant)      the queue is at rest
//     6. the lists' lock (src/client/registry.cpp)    no registry of a class is half changed
//
// which is the order of locks for the whole library. The handlers after it release all in reverse.
// The sixth has handlers of its own, registered when the library is loaded and thus always the last
// before a fork and the first after it. Nobody waits for anything while holding it.
// The child first forgets the parent's threads: who has which name, who stands in line, what is to
// be run, the funnel thread and its context. Its first send starts a funnel thread, its first use
// of the channel makes a new one.
//
// Three cases need more words.
//
// The condition lock is only tried. The funnel thread holds it while it starts, and then runs the
// once-routine, which in older C libraries waits until fork() is through. When it is busy, all but
// the turn is given up, and tried again.
//
// The channel's thread may fork while a send over the channel has the turn. That send waits for
// this very thread, which therefore must not wait for the send: it goes on without a turn and
// without the main lock. Its owner stands still until the fork is through, except for leaving when
// it is refused; the child does not have that owner, and makes the lock anew.
//
// A thread may fork while another one registers these handlers. Then they take no part in that fork
// and the child finds a state that says it belongs to its parent: OwnState() begins anew there. A
// child that was made in the middle of the registration registers again and may have the handlers
// twice; that is why they count how many of them run, and only the outermost do something.

#include "threads/fork_handlers.hpp"

#include "threads/thread_exit.hpp"
#include "threads/threadfunnel_line.hpp"
#include "threads/threadfunnel_log.hpp"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <utility>

namespace bmcbus::funnel
{

namespace
{

constinit std::atomic<const ForkParticipant*> participant{nullptr};

// Where the funnel was never used, its handlers work for the channel and say nothing.
bool Speaks()
{
    return state.onceEnded || !state.handlersInstalled;
}

bool TF_cond_trylock()
{
    const int irv = pthread_mutex_trylock(&state.condLock);
    if (irv != 0)
    {
        FUNNEL_LOG(trace, "pthread_mutex_trylock irv=%d, not necessarily an error", irv);
    }
    return irv == 0;
}

// Whether the thread got its turn; not so where the turn's owner waits for it.
bool StandInLine(bool insideItem)
{
    Place& place = thisThread.place;
    bool wait = false;
    {
        const DeadlockLock lock;
        if (state.line.awaitsLoop && !insideItem &&
            IsThread(owc_tid, owc_tid_valid, pthread_self()))
        {
            return false;
        }
        wait = Join(place);
    }
    return !wait || AwaitTurn(place);
}

void HoldMainLockInFork()
{
    OwnState();
    const bool insideItem =
        IsThread(funnel_tid, funnel_tid_valid, pthread_self()) || thisThread.runsChannelItem;
    if (insideItem)
    {
        FUNNEL_LOG_TWICE(failure, "fork inside a work item waits for its own sender: deadlock\n");
    }
    thisThread.forksWithoutTurn = !StandInLine(insideItem);
    if (!thisThread.forksWithoutTurn)
    {
        TF_lock();
    }
}

// The rest of the funnel's locks; false, and none of them, when one is busy.
bool TryOtherLocks()
{
    TF_deadlock_lock();
    if (TF_cond_trylock())
    {
        return true;
    }
    TF_deadlock_unlock();
    return false;
}

void ReleaseMainLock()
{
    if (!thisThread.forksWithoutTurn)
    {
        TF_unlock();
    }
}

void RetakeMainLock()
{
    if (!thisThread.forksWithoutTurn)
    {
        TF_lock();
    }
}

// Whether the calling handler is the last one of its fork.
bool EndsFork()
{
    return thisThread.forkHandlers == 0 || --thisThread.forkHandlers == 0;
}

} // namespace

int InstallForkHandlers()
{
    const auto install = []
    {
        state.handlersResult = pthread_atfork(TF_atfork_prepare, TF_atfork_parent, TF_atfork_child);
        state.handlersInstalled = true;
    };
    pthread_once(&state.handlersOnce, install);
    return state.handlersResult;
}

void TakePartInForks(const ForkParticipant& who)
{
    InstallForkHandlers();
    if (participant != &who)
    {
        // A fork under way holds this lock, and none of the new one's.
        const DeadlockLock lock;
        participant = &who;
    }
}

} // namespace bmcbus::funnel

using namespace bmcbus::funnel;

// No handler is a cancellation point, although they wait and log.

void TF_atfork_prepare()
{
    const bmcbus::NoCancellation wholeHandler;
    if (Speaks())
    {
        FUNNEL_LOG(trace, "enter");
    }
    if (thisThread.forkHandlers++ != 0)
    {
        return;
    }
    HoldMainLockInFork();
    while (!TryOtherLocks())
    {
        ReleaseMainLock();
        if (Speaks())
        {
            FUNNEL_LOG(trace, "loop");
        }
        sched_yield();
        RetakeMainLock();
    }
    if (Speaks())
    {
        FUNNEL_LOG(trace, "got all three locks");
    }
    thisThread.forksWith = participant;
    if (thisThread.forksWith != nullptr)
    {
        thisThread.forksWith->prepare();
    }
}

void TF_atfork_parent()
{
    const bmcbus::NoCancellation wholeHandler;
    if (Speaks())
    {
        FUNNEL_LOG(trace, "enter");
    }
    const bool byHand = thisThread.forkHandlers == 0; // with the three locks, and no turn
    if (!EndsFork())
    {
        return;
    }
    if (const ForkParticipant* const other = std::exchange(thisThread.forksWith, nullptr))
    {
        other->parent();
    }
    TF_cond_unlock();
    TF_deadlock_unlock();
    if (std::exchange(thisThread.forksWithoutTurn, false))
    {
        return;
    }
    TF_unlock();
    if (!byHand)
    {
        LeaveLine();
    }
}

void TF_atfork_child()
{
    const bmcbus::NoCancellation wholeHandler;
    if (Speaks())
    {
        FUNNEL_LOG(trace, "enter");
    }
    if (!EndsFork())
    {
        return;
    }
    if (const ForkParticipant* const other = std::exchange(thisThread.forksWith, nullptr))
    {
        other->child();
    }
    ForgetThreads();
    TF_cond_unlock();
    TF_deadlock_unlock();
    if (std::exchange(thisThread.forksWithoutTurn, false))
    {
        pthread_mutex_init(&state.mainLock, nullptr);
    }
    else
    {
        TF_unlock();
    }
    ForgetContext();
    state.process.store(getpid(), std::memory_order_release);
}
