#pragma once

// Everything that the funnel, the sends over the channel and fork() share: one record for the
// process, one for each thread, and the locks that guard them.

#include "threadfunnel.hpp"

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>

namespace bmcbus::funnel
{

// Marks the funnel thread and belongs to it, through the key: when the thread ends, so does this.
class TF_context
{
  public:
    TF_context();
    ~TF_context();
    TF_context(const TF_context&) = delete;
    TF_context& operator=(const TF_context&) = delete;

    bool is_funnel_thread;
};

// A place in the line of those who want to send or to fork; belongs to the thread that stands
// there.
struct Place
{
    pthread_t thread{};
    Place* next = nullptr;
    bool passedOver = false; // sent away without a turn
    sem_t called{};          // posted once: when the turn comes, or when passed over
};

struct Line
{
    bool taken = false; // somebody has the turn
    Place* first = nullptr;
    Place* last = nullptr;
    bool awaitsLoop = false; // the owner of the turn waits for the thread of the channel's loop
};

struct State
{
    // The locks, in the order in which they are taken. A sender holds the main lock for the whole
    // of its send; callers of TF_lock() hold it without standing in the line.
    pthread_mutex_t mainLock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t deadlockLock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t condLock = PTHREAD_MUTEX_INITIALIZER;

    // Under the deadlock lock, as funnel_tid and owc_tid are: who waits, and who must not. What is
    // atomic is also read without the lock.
    Line line;
    std::atomic<pthread_t> protectedThread{};
    std::atomic<bool> protectedThreadValid{false};

    // Under the condition lock, as TF_function is: the hand-over to the funnel thread. The variable
    // carries three events: thread started, work posted, work done.
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    bool threadStarted = false;
    bool workDone = false;
    std::atomic<TF_context*> context{nullptr}; // null while there is no working funnel thread

    // Set up once, children included.
    pthread_once_t once = PTHREAD_ONCE_INIT;
    std::atomic<bool> onceEnded{false};
    pthread_key_t key{};
    std::atomic<bool> keyValid{false};
    std::atomic<bool> handlersReady{false};
    pthread_once_t handlersOnce = PTHREAD_ONCE_INIT;
    std::atomic<bool> handlersInstalled{false};
    std::atomic<int> handlersResult{0};

    // The process that the record belongs to; 0 before the first use, busy while it is renewed.
    std::atomic<pid_t> process{0};
};

extern constinit State state;

struct ForkParticipant;

// What a thread is doing. Most of it belongs to its fork(), which spans two handlers.
struct ThisThread
{
    clockid_t checked{};           // when set, the record is known to be of this process
    bool runsChannelItem = false;  // it runs the item of a send over the channel
    unsigned int forkHandlers = 0; // of ours that are running, see fork_handlers.cpp
    bool forksWithoutTurn = false; // and without the main lock
    const ForkParticipant* forksWith = nullptr;
    Place place; // in the line, for its fork
};

extern constinit thread_local ThisThread thisThread;

// Holds the deadlock lock.
class DeadlockLock
{
  public:
    DeadlockLock() { TF_deadlock_lock(); }
    ~DeadlockLock() { TF_deadlock_unlock(); }
    DeadlockLock(const DeadlockLock&) = delete;
    DeadlockLock& operator=(const DeadlockLock&) = delete;
};

// The exported identities of threads are plain variables, so all access to them goes through these,
// which are atomic. The flag is set after the value and read before it.
void SetThread(pthread_t& tid, bool& valid, pthread_t value);
void ClearThread(bool& valid);
bool IsThread(pthread_t& tid, bool& valid, pthread_t other);

// For a thread that ends: its id may come back as another thread's.
void ForgetLoopThread(pthread_t ended);

// Makes the record that of the calling process if it is a parent's: a child that ran none of our
// handlers (made by _Fork() or the like, or while they were being installed) begins anew, since
// whatever was locked stays so. Every way into a send and into its checks comes through here.
void OwnState();

// In a child: forgets the parent's threads and what they were doing. The caller holds the locks.
void ForgetThreads();

// In a child, after ForgetThreads() and without the main lock, which this takes.
void ForgetContext();

// The log source that is told of refusals and exceptions as well; 0 when there is none.
unsigned int AlternateLogSource();

} // namespace bmcbus::funnel
