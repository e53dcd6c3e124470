// What fork() means to the threading tools: the whole story, and the one set of handlers.
//
// fork() copies the memory, but of all threads only the one that called it. A lock that another
// thread held at that moment stays locked in the child for ever, and what it was changing stays
// half changed. So nobody else may be at work at that moment. The C library calls three handlers
// for that: one before the fork, and one after it in each of the two processes.
//
// Before, the forking thread takes everything that somebody could be at work under, in this order:
//
//     1. a turn in the line of senders (threadfunnel_line.cpp): no send is under way
//     2. the main lock: nobody is between TF_lock() and TF_unlock() either
//     3. the deadlock lock: the line is whole, and so is the record of who must not wait
//     4. the condition lock: the funnel thread sleeps, or is between two items
//     5. the channel's locks (oneway_channel.cpp, a ForkParticipant): its queue is whole
//     6. the lock of the lists of objects (src/client/registry.cpp): every list is whole
//
// Whoever in the library holds several of them took them in this order, too. The sixth has handlers
// of its own, which are registered when the library is loaded. The C library therefore runs them
// last before a fork and first after it, and nobody waits for anything while holding that lock.
//
// After, in the parent, everything is released in reverse and all goes on as before.
//
// After, in the child, the parent's threads are forgotten before the release: who has which name,
// who stands in the line, what is to be run, the funnel thread and its context. The first send in
// the child starts a funnel thread, its first use of the channel makes a new one.
//
// Four cases need more words.
//
// The condition lock is busy. It is only tried, since to wait for it could last for ever: the
// funnel thread holds it while it starts and then goes through pthread_once(), which in older C
// libraries waits until fork() is through. When it is busy, all but the turn is given up and tried
// again.
//
// The channel's thread forks while a send over the channel has the turn. That send waits for this
// very thread, which therefore must not wait for the send: it goes on without a turn and without
// the main lock. The send stands still until the fork is through, for its item runs on this thread;
// at most it leaves, when the channel refuses it. The child does not have the thread that holds the
// main lock, and makes the lock anew.
//
// An item forks. Its sender has the turn and waits for the item, so the fork would wait for ever.
// This is told in the log and cannot be helped: the child would run the rest of somebody's item.
//
// Another thread is just registering these handlers. Then they take no part in the fork, and the
// child finds a state that says it belongs to its parent: OwnState() begins anew there. A child
// that was made in the middle of the registration registers again and may have every handler twice;
// that is why they count how many of them run, and only the outermost does something.
//
// A pool takes no part in forks, and a child must not touch its parent's.

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

// Whether the thread got its turn; it gets none where the turn's owner waits for this very thread.
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

// Whether the calling handler is the last one of its fork; there are several when the handlers are
// registered twice.
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
        // A fork under way holds this lock but none of the participant's: it must end without him.
        const DeadlockLock lock;
        participant = &who;
    }
}

} // namespace bmcbus::funnel

using namespace bmcbus::funnel;

// The handlers. They wait and log, which are cancellation points, but none may end half-way.

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
