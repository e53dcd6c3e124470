// Locks and lists across fork(): lists change under one lock that forks wait for, so they are whole
// in a child; other locks may be held by threads that the child does not have, and are made anew
// there.

#include <bmcbus/client/anchor.hpp>
#include <bmcbus/client/registry.hpp>

#include <pthread.h>

#include <atomic>
#include <new>

namespace bmcbus::client
{
namespace
{

constinit std::mutex changes; // no other lock is taken while it is held
constinit ListMutex* entries = nullptr;
constinit std::atomic<uint32_t> generation = 0; // how many forks led to this process

void MakeAnew(std::mutex& mutex)
{
    new (&mutex) std::mutex;
}

void Prepare()
{
    changes.lock();
}

void Parent()
{
    changes.unlock();
}

void Child()
{
    generation.fetch_add(1, std::memory_order_relaxed);
    for (ListMutex* entry = entries; entry != nullptr; entry = entry->next)
    {
        if (entry->mutex->try_lock())
        {
            entry->mutex->unlock();
        }
        else
        {
            MakeAnew(*entry->mutex);
        }
    }
    changes.unlock();
}

// At load time, so that these handlers come last before a fork: whoever waits in another library's
// handler, or in the thread funnel's, must not keep others from changing a registry meanwhile. The
// order of all locks stands in src/threads/fork_handlers.cpp.
[[gnu::constructor]] void RegisterForkHandlers()
{
    static_cast<void>(pthread_atfork(Prepare, Parent, Child));
}

} // namespace

void ForkMutex::lock()
{
    const uint32_t now = generation.load(std::memory_order_relaxed);
    const std::atomic_ref own(generation_);
    if (own.load(std::memory_order_acquire) != now)
    {
        const std::lock_guard lock(changes);
        if (own.load(std::memory_order_relaxed) != now)
        {
            MakeAnew(mutex_);
            own.store(now, std::memory_order_release);
        }
    }
    mutex_.lock();
}

ListChange::ListChange()
{
    changes.lock();
}

ListChange::~ListChange()
{
    changes.unlock();
}

void EnterList(ListMutex& entry)
{
    const ListChange change;
    entry.next = entries;
    entries = &entry;
}

void LeaveList(ListMutex& entry)
{
    const ListChange change;
    ListMutex** link = &entries;
    while (*link != &entry)
    {
        link = &(*link)->next;
    }
    *link = entry.next;
}

uint32_t ThreadNumber()
{
    static constinit std::atomic<uint32_t> last = 0;
    thread_local constinit uint32_t number = 0;
    if (number == 0)
    {
        number = last.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return number;
}

} // namespace bmcbus::client
