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
// none. Every way into a send comes through here.
void OwnState();

// Keeps sends out of the calling thread's fork. Calls nest, so that all fork handlers which need it
// may ask for it, in whichever order fork() runs them. A handler that takes a lock which a send
// needs while it holds the main lock asks before it takes its own.
void HoldSends();
void ReleaseSends();

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

// Whether the send under way waits for the channel's thread.
extern std::atomic<bool> waitsForChannel;

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
