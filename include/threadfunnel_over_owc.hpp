/**
 * @file
 * Work items that run on the thread of the one-way channel's event loop while the caller waits.
 *
 * What threadfunnel.hpp does with a thread of its own, this does with the thread of the loop that
 * is registered with the channel (oneway_channel.hpp). Both kinds of send are serialised together,
 * and each recognises the deadlocks that the other could cause.
 *
 * @code
 * // on the loop's thread
 * OneWayChannel_RegisterSDEvent(event, nullptr);
 * // on any other thread
 * std::function<void()> work = [&] { power = proxy->Get_SystemInputPower(); };
 * TFoOWC_init_and_send_work(work); // returns when the item has run on the loop's thread
 * @endcode
 */
#ifndef BMCBUS_THREADFUNNEL_OVER_OWC_HPP
#define BMCBUS_THREADFUNNEL_OVER_OWC_HPP

#include <bmcbus/export.h>

#ifdef __cplusplus

#include <functional>

/**
 * Runs @p work on the thread of the channel's event loop and returns when it has run.
 *
 * On that thread itself the item runs at once, as a plain call. From then on ::owc_tid names that
 * thread, as long as it lives, and funnel sends from it are refused, also one that already waits
 * for its turn behind this one.
 *
 * The send is refused, with a line of level 1 and without running the item, when no loop is
 * registered, when the registration is of the kind whose thread is not known (the caller's own poll
 * loop), when the caller is the funnel thread or is marked with TF_start_deadlock_protection(), or
 * when the funnel's fork handlers could not be set up. The caller is not told otherwise; a caller
 * that must know lets the item set a flag.
 *
 * @param work  borrowed until the call returns, never copied; an empty one is reported like an item
 *              that throws std::bad_function_call
 *
 * Any thread. Blocks until all earlier sends and the item are done, for as long as the loop does
 * not run: do not unregister the loop or end it while a send may be waiting. It is no cancellation
 * point.
 *
 * Exceptions of the item do not reach the caller: they are logged (level 2), those that are not a
 * std::exception with the text "not a std::exception". Only when the item runs as a plain call does
 * the latter kind pass to the caller. What the channel itself throws (no pipe, a failed lock, no
 * memory) passes to the caller; the item has not run then and will not.
 *
 * The item must not call fork(), which would wait for this send to end (see threadfunnel.hpp). The
 * loop's thread may fork at any other time: a send that waits for it goes on in the parent and does
 * not exist in the child, whose channel is a new, unregistered one.
 */
BMCBUS_EXPORT void TFoOWC_init_and_send_work(std::function<void()>& work);

#endif

#endif
