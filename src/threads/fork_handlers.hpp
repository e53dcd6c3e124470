#pragma once

// The one set of fork handlers of funnel and channel. Their story is told in fork_handlers.cpp.

namespace bmcbus::funnel
{

// Somebody with locks of his own, which come after the funnel's. All three run on the forking
// thread.
struct ForkParticipant
{
    void (*prepare)(); // takes the locks
    void (*parent)();  // releases them
    void (*child)();   // releases them and forgets the parent's threads
};

// Installs the handlers, once for the process and its children. Gives the result of
// pthread_atfork().
int InstallForkHandlers();

// The same; from the next fork on `participant` takes part, also in children. There can be only
// one.
void TakePartInForks(const ForkParticipant& participant);

} // namespace bmcbus::funnel
