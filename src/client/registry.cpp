// Locks and lists across fork(): lists change under one lock that forks wait for, so they are whole
// in a child; other locks may be held by threads that the child does not have, and are made anew
// there.

#include <bmcbus/client/object.hpp>

#include <pthread.h>

#include <atomic>
#include <new>

namespace bmcbus::client
{
namespace
{

// While it is held no fork() happens, so that a child never sees a list half changed; no other lock
// is taken meanwhile.
constinit std::mutex changes;
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

void EnterList(ListMutex& entry)
{
    const std::lock_guard change(changes);
    entry.next = entries;
    entries = &entry;
}

void LeaveList(ListMutex& entry)
{
    const std::lock_guard change(changes);
    ListMutex** link = &entries;
    while (*link != &entry)
    {
        link = &(*link)->next;
    }
    *link = entry.next;
}

size_t SizeOf(const Registry& registry)
{
    return registry.type->size(registry.list);
}

void* ObjectAt(const Registry& registry, size_t place)
{
    return registry.type->at(registry.list, place);
}

void Erase(const Registry& registry, size_t place)
{
    const std::lock_guard change(changes);
    registry.type->erase(registry.list, place);
}

// Destroys the objects that are `ours(object)`, each when it has left the list.
template <class Ours>
void DestroyAll(const Registry& registry, Ours ours)
{
    const std::lock_guard lock(*registry.mutex);
    for (size_t place = 0; place < SizeOf(registry);)
    {
        void* const object = ObjectAt(registry, place);
        if (object != nullptr && !ours(object))
        {
            ++place;
            continue;
        }
        Erase(registry, place);
        registry.about->destroy(object);
    }
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

RegistryLife::RegistryLife(const Registry& registry) : entry_{registry.mutex}, registry_(registry)
{
    EnterList(entry_);
}

RegistryLife::~RegistryLife()
{
    {
        const std::lock_guard lock(*registry_.mutex);
        const std::lock_guard change(changes);
        registry_.type->free(registry_.list);
    }
    LeaveList(entry_);
}

void* Lookup(const std::string& path, const Registry& registry)
{
    const std::lock_guard lock(*registry.mutex);
    for (size_t place = 0; place < SizeOf(registry); ++place)
    {
        void* const object = ObjectAt(registry, place);
        if (object != nullptr && registry.about->path(object) == path)
        {
            return object;
        }
    }
    return nullptr;
}

void Save(void* object, const Registry& registry)
{
    const std::lock_guard lock(*registry.mutex);
    const std::lock_guard change(changes);
    registry.type->append(registry.list, object);
}

void Unsave(void* object, const Registry& registry)
{
    const std::lock_guard lock(*registry.mutex);
    for (size_t place = 0; place < SizeOf(registry); ++place)
    {
        if (ObjectAt(registry, place) == object)
        {
            Erase(registry, place);
            return;
        }
    }
}

void Release(void* object, const Registry& registry)
{
    Unsave(object, registry);
    registry.about->destroy(object);
}

void Cleanup(const Registry& registry)
{
    DestroyAll(registry, [](void* /*object*/) { return true; });
}

void CleanupThread(const Registry& registry)
{
    DestroyAll(registry, [&](void* object)
               { return registry.about->anchor(object).thread() == ThreadNumber(); });
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
