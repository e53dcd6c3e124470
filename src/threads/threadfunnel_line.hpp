#pragma once

// The line in which senders and forks stand, first come, first served.

#include "threads/threadfunnel_state.hpp"

namespace bmcbus::funnel
{

// What keeps a thread from waiting for its turn.
struct Verdict
{
    bool isFunnelThread = false; // A
    bool isLoopThread = false;   // D
    bool isProtected = false;    // B

    bool Refused() const { return isFunnelThread || isLoopThread || isProtected; }

    // A line for each that holds.
    void Report() const;
};

// Of the calling thread. Under the deadlock lock, as long as it is to hold.
Verdict Judge();

// Places. Whoever has the turn goes on to take the main lock.
//
// Joins the line and tells whether the caller has to wait; under the deadlock lock.
bool Join(Place& place);
// Waits, without a lock. False when the place was passed over, and so has no turn.
bool AwaitTurn(Place& place);
// Gives the turn to the next in line.
void LeaveLine();

// The calling thread's turn to send: the main lock and the deadlock mark, unless refused. Others
// hold pointers into the thread's frame meanwhile, so it must not be cancelled.
class SendTurn
{
  public:
    SendTurn();
    ~SendTurn();
    SendTurn(const SendTurn&) = delete;
    SendTurn& operator=(const SendTurn&) = delete;

    const Verdict& TheVerdict() const { return verdict; }

    // Before it waits for the thread of the channel: names that thread as `loopThread` has it, and
    // sends away who stands in the line and is that thread.
    static void AwaitLoop(bool (*loopThread)(pthread_t& tid));

  private:
    Verdict verdict;
    Place place;
};

} // namespace bmcbus::funnel
