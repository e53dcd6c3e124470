#pragma once

// The one set of fork handlers of funnel and channel. Their story is told in fork_handlers.cpp.

namespace bmcbus::funnel
{

// Somebody whose locks come after the funnel's, see fork_handlers.cpp. All three run on the forking
// thread.
struct ForkParticipant
{
    void (*prepare)(); // takes the locks
    void (*parent)();  // releases them
    void (*child)();   // releases them and forgets the parent's threads
};

// Installs the handlers, once for the process and its children. Gives what pthread_atfork() said.
int InstallForkHandlers();

// The same, and from the next fork on `participant`, the only one, takes part. It stays so in
// children.
void TakePartInForks(const ForkParticipant& participant);

} // namespace bmcbus::funnel
