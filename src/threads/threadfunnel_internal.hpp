#pragma once

// What the funnel shares with the send over the one-way channel, and with the channel's own fork
// handlers.

#include "log.hpp"
#include "threadfunnel.hpp"

#include <atomic>

namespace bmcbus::funnel
{

inline constexpr const char* foreignException = "not a std::exception";

// 0 when there is none.
unsigned int AlternateLogSource();

// Lets the calling process use the funnel's state although it was forked without the handlers: they
// were not in place yet (the first send was still starting up), or the caller's way of forking runs
// none. Every way into a send and into its checks comes through here.
void OwnState();

// For the channel's fork handlers: keep sends over the channel out of the calling thread's fork.
// Such a send posts while it holds the main lock, so this comes before the handler's own locks, and
// its end after them. Calls nest with the funnel's own handlers, which fork() may run before or
// after.
//
// The thread that a send over the channel waits for must not wait for that send: it goes on without
// the main lock, whose holder does not get any further meanwhile.
void HoldSends();
void ReleaseSends();

// For the channel's handler in the child, at its end: nothing of the parent's threads is left.
void BeginInChild();

// The calling thread's turn to send: the main lock and the deadlock mark. While it lasts the thread
// cannot be cancelled, because others hold pointers into its frame.
class SendTurn
{
  public:
    SendTurn();
    ~SendTurn();
    SendTurn(const SendTurn&) = delete;
    SendTurn& operator=(const SendTurn&) = delete;

  private:
    int cancelState = 0;
};

// Whether the send under way is one over the channel.
extern constinit std::atomic<bool> channelSend;

// Whether the calling thread runs the item of a send over the channel.
extern constinit thread_local bool runsChannelItem;

} // namespace bmcbus::funnel

// A line that goes to the alternate source as well.
#define FUNNEL_LOG_TWICE(level, text, ...)                                                         \
    do                                                                                             \
    {                                                                                              \
        BMCBUS_LOG(level, text __VA_OPT__(, ) __VA_ARGS__);                                        \
        if (const unsigned int alternate = bmcbus::funnel::AlternateLogSource(); alternate != 0)   \
        {                                                                                          \
            BMCBUS_LOG_AS(level, alternate, __func__, text __VA_OPT__(, ) __VA_ARGS__);            \
        }                                                                                          \
    } while (false)

#define FUNNEL_LOG_EXCEPTION(what)                                                                 \
    do                                                                                             \
    {                                                                                              \
        BMCBUS_LOG_EXCEPTION(bmcbus::log::librarySource, "\n", what);                              \
        if (const unsigned int alternate = bmcbus::funnel::AlternateLogSource(); alternate != 0)   \
        {                                                                                          \
            BMCBUS_LOG_EXCEPTION(alternate, "\n", what);                                           \
        }                                                                                          \
    } while (false)
