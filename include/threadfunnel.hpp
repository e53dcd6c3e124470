/**
 * @file
 * The thread funnel: work items of any thread run one at a time on one thread of their own.
 *
 * Use it for work that must not run concurrently with other such work, or that must always run on
 * the same thread (a library that is not thread-safe, a device with one user).
 *
 * @code
 * std::function<void()> work = [&] { reading = sensor.Read(); };
 * TF_init_and_send_work(work); // returns when the item has run
 * @endcode
 *
 * The funnel thread is started by the first send and lives as long as the process. Sends are
 * serialised process-wide, together with those of threadfunnel_over_owc.hpp, in the order of their
 * arrival; fork() stands in the same line.
 *
 * The funnel thread blocks all signals but those that a fault raises, so signals reach the threads
 * of the program. What an item starts inherits that: give a program that it spawns a mask of its
 * own (`posix_spawnattr_setsigmask()`).
 *
 * Unless a declaration says otherwise, a function may be called from any thread. Failures are
 * reported in the debug log (source 300) and never thrown.
 *
 * **fork().** Handlers keep both sides usable: fork() waits for the send that is under way, and the
 * child starts a funnel thread of its own with its first send. A work item must therefore not call
 * fork(), neither on the funnel thread nor on the thread of the one-way channel: it would wait for
 * its own sender, which waits for the item. A line of level 1 says so before the wait.
 * posix_spawn(), system() and popen() run no handlers and are fine everywhere.
 *
 * C programs see the variables that are plain data; everything else needs C++.
 */
#ifndef BMCBUS_THREADFUNNEL_HPP
#define BMCBUS_THREADFUNNEL_HPP

#include <bmcbus/export.h>
#include <pthread.h>

#ifdef __cplusplus
#include <functional>

extern "C"
{
#else
#include <stdbool.h>
#endif

    /**
     * @name Thread identities
     *
     * Written by the library at any time, without a lock that a reader could take for all of them.
     * A program that reads them while sends may be under way uses an atomic load
     * (`std::atomic_ref`,
     * `__atomic_load_n`), the flag before the id.
     * @{
     */

    /** The funnel thread; meaningful while ::funnel_tid_valid is set. */
    BMCBUS_EXPORT extern pthread_t funnel_tid;

    /** Whether ::funnel_tid is set; cleared in a forked child. */
    BMCBUS_EXPORT extern bool funnel_tid_valid;

    /** The thread of the one-way channel, published by each send over the channel. */
    BMCBUS_EXPORT extern pthread_t owc_tid;

    /**
     * Whether ::owc_tid is set; stays set after the send, cleared in a forked child and when that
     * thread ends.
     */
    BMCBUS_EXPORT extern bool owc_tid_valid;

    /** @} */

    /**
     * Second source id of the lines about deadlocks and exceptions; 0 (the default): none.
     *
     * Set it with TF_set_alternate_log_source(), which is safe while other threads send.
     */
    BMCBUS_EXPORT extern unsigned int TF_alternate_log_source;

#ifdef __cplusplus
}

/**
 * The item that waits for the funnel thread, null when none does.
 *
 * Points at the sender's own object. To be read between TF_cond_lock() and TF_cond_unlock().
 */
BMCBUS_EXPORT extern std::function<void()>* TF_function;

/**
 * Runs @p work on the funnel thread and returns when it has run.
 *
 * On the funnel thread itself (a work item that sends) the item runs at once, as a plain call.
 *
 * The send is refused, with a line of level 1 and without running the item, when it could not
 * complete: the caller is the thread of the one-way channel once a send over the channel has
 * published it, the caller is marked with TF_start_deadlock_protection(), or the funnel thread
 * could not be started (the next send tries again). The caller is not told otherwise; a caller that
 * must know lets the item set a flag.
 *
 * @param work  borrowed until the call returns, never copied; an empty one is reported like an item
 *              that throws std::bad_function_call
 *
 * Blocks until all earlier sends and the item are done. It is no cancellation point. Exceptions of
 * the item do not reach the caller: they are logged (level 2), those that are not a std::exception
 * with the text "not a std::exception". Only when the item runs as a plain call does the latter
 * kind pass to the caller. An item may end the funnel thread with pthread_exit(): the sender
 * returns, and the next send starts a new thread.
 */
BMCBUS_EXPORT void TF_init_and_send_work(std::function<void()>& work);

/**
 * Whether a send from the calling thread could deadlock.
 *
 * Logs each case that holds at level 1: the caller is the funnel thread (A), the thread of the
 * one-way channel (D), or holds deadlock protection (B). Takes the deadlock lock; does not block
 * otherwise.
 */
BMCBUS_EXPORT bool TF_check_for_deadlock();

/**
 * Whether the thread that is blocked in a send is the funnel thread (C) or the thread of the
 * one-way channel (E), so that a callback must not wait for that thread.
 *
 * Logs each case that holds at level 1. Takes no lock and does not depend on the calling thread.
 */
BMCBUS_EXPORT bool TF_check_for_deadlock_in_callback();

/**
 * Marks the calling thread as one that must not send: its sends are refused (case B).
 *
 * There is one mark per process, which the sends use as well: a later start replaces it, and any
 * end clears it, whoever set it.
 */
BMCBUS_EXPORT void TF_start_deadlock_protection();

/** Clears the mark of TF_start_deadlock_protection(). */
BMCBUS_EXPORT void TF_end_deadlock_protection();

/**
 * Sets ::TF_alternate_log_source: lines about deadlocks and exceptions are then written twice.
 *
 * @param source  source id, 0 for none
 */
BMCBUS_EXPORT void TF_set_alternate_log_source(unsigned int source);

/**
 * Creates the funnel's thread key and registers its fork handlers, once per process and its
 * children. The sends do this by themselves.
 *
 * @return whether both are in place; false is logged at level 1 and stays so
 */
BMCBUS_EXPORT bool TF_setup_key_and_atfork();

/** Sends an item that does nothing but log (level 9): shows that the funnel works. */
BMCBUS_EXPORT void TF_poc();

/**
 * @name Locks
 *
 * The main lock is held for the whole of each send: between TF_lock() and TF_unlock() no work item
 * runs, and a send or a fork() of the thread that holds it waits for ever. TF_lock() does not stand
 * in the line of the senders; it competes with the one whose turn it is. The lock order is main,
 * deadlock, condition, then those of the one-way channel; none is recursive. Each call blocks until
 * the lock is free. A failure of the system call is logged at level 1, and the call then behaves as
 * if it had succeeded.
 * @{
 */
BMCBUS_EXPORT void TF_lock();            /**< Takes the main lock. */
BMCBUS_EXPORT void TF_unlock();          /**< Releases the main lock. */
BMCBUS_EXPORT void TF_deadlock_lock();   /**< Takes the lock of the thread identities. */
BMCBUS_EXPORT void TF_deadlock_unlock(); /**< Releases the lock of the thread identities. */
BMCBUS_EXPORT void TF_cond_lock();       /**< Takes the lock of the hand-over. */
BMCBUS_EXPORT void TF_cond_unlock();     /**< Releases the lock of the hand-over. */
/** @} */

/**
 * @name Fork handlers
 *
 * Registered by the library; fork() calls them, nobody else needs to.
 * @{
 */
BMCBUS_EXPORT void TF_atfork_prepare(); /**< Waits for its turn, then takes the three locks. */
BMCBUS_EXPORT void TF_atfork_parent();  /**< Releases the three locks. */
BMCBUS_EXPORT void TF_atfork_child();   /**< Releases them and forgets the threads of the parent. */
/** @} */

#endif /* __cplusplus */

#endif
