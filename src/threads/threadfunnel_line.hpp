#pragma once

// The line in which senders and forks stand, first come, first served.

#include "threads/threadfunnel_state.hpp"

namespace bmcbus::funnel
{

// What keeps a thread from waiting for its turn. The letters are those of the lines in the log.
struct Verdict
{
    bool isFunnelThread = false; // A: it runs the items that senders wait for
    bool isLoopThread = false;   // D: so does this one, for sends over the channel
    bool isProtected = false;    // B: it sends already, or somebody marked it

    bool Refused() const { return isFunnelThread || isLoopThread || isProtected; }

    // A line for each that holds.
    void Report() const;
};

// The verdict on the calling thread. It holds for as long as the deadlock lock is held.
Verdict Judge();

// Takes a place in the line and tells whether the caller has to wait for its turn; under the
// deadlock lock.
bool Join(Place& place);
// Waits for the turn, without a lock. False when the place was passed over and so got none.
bool AwaitTurn(Place& place);
// Gives the turn to the next in line.
void LeaveLine();

// The calling thread's turn to send: it holds the main lock and is protected, unless it was
// refused. Others point into the thread's frame meanwhile, so it must not be cancelled.
class SendTurn
{
  public:
    SendTurn();
    ~SendTurn();
    SendTurn(const SendTurn&) = delete;
    SendTurn& operator=(const SendTurn&) = delete;

    const Verdict& TheVerdict() const { return verdict; }

    // Before the sender waits for the thread of the channel's loop: writes down which thread that
    // is, by `loopThread`, and sends it away if it stands in the line.
    static void AwaitLoop(bool (*loopThread)(pthread_t& tid));

  private:
    Verdict verdict;
    Place place;
};

} // namespace bmcbus::funnel
