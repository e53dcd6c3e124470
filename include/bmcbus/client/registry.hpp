#pragma once

/**
 * @file
 * What the generated classes keep for the whole process, in the face of its end and of fork().
 *
 * For generated code. Nothing here blocks for longer than a list takes to change.
 */

#include <bmcbus/client/fork_mutex.hpp>
#include <bmcbus/export.h>

#include <mutex>
#include <vector>

namespace bmcbus::client
{

/** While one exists no fork() happens, so that a child never sees a list half changed. */
class BMCBUS_EXPORT ListChange
{
  public:
    ListChange();
    ~ListChange();
    ListChange(const ListChange&) = delete;
    ListChange& operator=(const ListChange&) = delete;
};

/** A mutex that guards a list; once entered here it is free in every child. */
struct ListMutex
{
    std::mutex* mutex;
    ListMutex* next = nullptr;
};

BMCBUS_EXPORT void EnterList(ListMutex& entry);
BMCBUS_EXPORT void LeaveList(ListMutex& entry);

/** Storage of a class's registry: made before any initialiser runs, never destroyed. */
template <class Class>
union RegistryStorage
{
    std::vector<Class*> list;

    constexpr RegistryStorage() : list() {}
    ~RegistryStorage() {} // NOLINT(modernize-use-equals-default): that would be a deleted one
};

/**
 * The load-time and exit-time work for one registry.
 *
 * At exit the list's memory is freed; the registry is empty then and can still be used, by static
 * destructors and by threads that are still running. Registered objects are not destroyed.
 */
template <class Class>
class RegistryLife
{
  public:
    RegistryLife(std::mutex& mutex, std::vector<Class*>& list) : entry_{&mutex}, list_(list)
    {
        EnterList(entry_);
    }
    ~RegistryLife()
    {
        {
            const std::lock_guard lock(*entry_.mutex);
            const ListChange change;
            std::vector<Class*>().swap(list_);
        }
        LeaveList(entry_);
    }
    RegistryLife(const RegistryLife&) = delete;
    RegistryLife& operator=(const RegistryLife&) = delete;

  private:
    ListMutex entry_;
    std::vector<Class*>& list_;
};

} // namespace bmcbus::client
