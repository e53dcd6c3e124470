/**
 * @file
 * A small pool of worker threads for work that nobody waits for.
 */
#ifndef BMCBUS_YETANOTHERTHREADPOOL_HPP
#define BMCBUS_YETANOTHERTHREADPOOL_HPP

#include <bmcbus/export.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/**
 * Runs tasks on worker threads, started in the order in which they were queued.
 *
 * @code
 * YetAnotherThreadPool pool(2);
 * pool.enqueue([file] { Archive(file); });
 * @endcode // the destructor waits until everything queued has run
 *
 * There is no result and no completion handle; a task that must report does so itself. With one
 * worker tasks run one after the other, with several they overlap.
 *
 * Workers block all signals but those that a fault raises, so signals reach the threads of the
 * program. What a task starts inherits that: give a program that it spawns a mask of its own
 * (`posix_spawnattr_setsigmask()`).
 *
 * A pool belongs to the process that made it: its threads do not exist in a forked child, which
 * must neither use nor destroy the pool (end with exec or _exit, or leave the object alone). A task
 * must not destroy its own pool, fork and go on, or end its thread with pthread_exit().
 */
class BMCBUS_EXPORT YetAnotherThreadPool
{
  public:
    /**
     * Starts the workers.
     *
     * @param threadCount  how many; 0 gives one
     * @throws std::system_error  a worker could not be started; those already running were stopped
     *                            and joined
     */
    explicit YetAnotherThreadPool(unsigned long threadCount);

    /**
     * Lets the workers run everything that is queued, then joins them in the order of their start.
     *
     * Blocks for as long as the tasks take; call clearQueue() first to drop what has not started.
     * Nobody may call a member any more, except that tasks of the pool may queue further tasks:
     * those run too. A failed join is logged (level 2) and does not end the process: the destructor
     * then waits until the workers have left the pool and lets go of their threads.
     */
    ~YetAnotherThreadPool();

    YetAnotherThreadPool(const YetAnotherThreadPool&) = delete;
    YetAnotherThreadPool& operator=(const YetAnotherThreadPool&) = delete;

    /**
     * Queues a copy of @p task and wakes a worker. Any thread, tasks included; does not wait for
     * the task and never starts a thread.
     *
     * An exception that leaves the task is logged at level 1, for a std::exception with its text,
     * and the worker goes on; an empty task is reported the same way. The copy is destroyed on the
     * worker after it ran.
     *
     * @throws std::system_error  the queue could not be locked; nothing was queued
     */
    void enqueue(const std::function<void()>& task);

    /**
     * Drops every task that no worker has taken yet, first to last, without running it. Any thread;
     * does not wait for tasks that run.
     *
     * @throws std::system_error  the queue could not be locked; nothing was dropped
     */
    void clearQueue();

    /**
     * Adds one worker. Any thread.
     *
     * @throws std::system_error  it could not be started; the pool goes on as before
     */
    void makeNewWorkerThread();

    /** What each worker runs until the pool stops and the queue is empty. Not for callers. */
    void workerThreadBody();

  private:
    struct Empty
    {
    };
    __attribute__((visibility("hidden"))) explicit YetAnotherThreadPool(Empty);
    __attribute__((visibility("hidden"))) void LetGoOfWorkers();
    __attribute__((visibility("hidden"))) void LookAgain(std::unique_lock<std::mutex>& lock);

    std::vector<std::thread> workers;
    std::deque<std::function<void()>> tasks;
    std::mutex queueMutex;
    std::condition_variable condition;
    std::atomic<bool> stop;
    // In the room that alignment leaves behind `stop`. They count modulo their size, so the first
    // never says more than there are.
    std::atomic<unsigned char> lookingWorkers; // those that found nothing and are not yet asleep
    std::atomic<unsigned short> leftWorkers;   // those that are through with the pool
};

#endif
