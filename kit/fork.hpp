#pragma once

// What a child made by fork() inherits of the kit belongs to its parent: the threads are not there,
// the connections, daemons and folders are in use. An object that is destroyed there, as those with
// static storage are by exit(), leaves all of it alone.

#include <unistd.h>

#include <memory>

namespace bmcbus::testing
{

// Knows the process that it was made in. A member of whatever belongs to one process.
class Home
{
  public:
    bool Left() const { return getpid() != process; }

  private:
    pid_t process = getpid();
};

// Leaves it undestroyed, and remembers it so that no checker takes it for lost.
void KeepForEver(void* abandoned);

template <class T>
void Abandon(std::unique_ptr<T>& owned)
{
    KeepForEver(owned.release());
}

} // namespace bmcbus::testing
