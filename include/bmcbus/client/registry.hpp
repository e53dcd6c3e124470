#pragma once

/**
 * @file
 * What the generated classes keep for the whole process, in the face of its end and of fork().
 *
 * For generated code. Nothing here blocks for longer than a list takes to change.
 */

#include <bmcbus/client/fork_mutex.hpp>
#include <bmcbus/export.h>

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace bmcbus::client
{

struct Description;

/** A mutex that guards a list; once entered here it is free in every child. */
struct ListMutex
{
    std::mutex* mutex;
    ListMutex* next = nullptr;
};

/** Storage of a class's registry: made before any initialiser runs, never destroyed. */
template <class Class>
union RegistryStorage
{
    std::vector<Class*> list;

    constexpr RegistryStorage() : list() {}
    ~RegistryStorage() {} // NOLINT(modernize-use-equals-default): that would be a deleted one
};

/**
 * How to change a list of pointers to objects of one class: a `std::vector` of the class's own
 * pointers, which the run-time half knows as an address only.
 */
struct ListType
{
    size_t (*size)(const void* list);
    void* (*at)(const void* list, size_t place);
    void (*append)(void* list, void* object);
    void (*erase)(void* list, size_t place);
    void (*free)(void* list); ///< leaves it empty
};

namespace detail
{

template <class Class>
std::vector<Class*>& ListOf(void* list)
{
    return *static_cast<std::vector<Class*>*>(list);
}

template <class Class>
const std::vector<Class*>& ListOf(const void* list)
{
    return *static_cast<const std::vector<Class*>*>(list);
}

// One longer each time: push_back takes four times the code, and objects cost exchanges on the bus.
template <class Class>
void Append(std::vector<Class*>& list, Class* object)
{
    std::vector<Class*> longer(list.size() + 1);
    *std::copy(list.begin(), list.end(), longer.begin()) = object;
    list.swap(longer);
}

} // namespace detail

/** The functions for a class. */
template <class Class>
inline constexpr ListType listOf = {
    .size = [](const void* list) { return detail::ListOf<Class>(list).size(); },
    .at = [](const void* list, size_t place) -> void*
    { return detail::ListOf<Class>(list)[place]; },
    .append = [](void* list, void* object)
    { detail::Append(detail::ListOf<Class>(list), static_cast<Class*>(object)); },
    .erase =
        [](void* list, size_t place)
    {
        auto& objects = detail::ListOf<Class>(list);
        objects.erase(objects.begin() + static_cast<std::ptrdiff_t>(place));
    },
    .free = [](void* list) { std::vector<Class*>().swap(detail::ListOf<Class>(list)); },
};

/** The objects of a class made by Create, in the order of registration. */
struct Registry
{
    std::mutex* mutex;
    void* list;
    const ListType* type;
    const Description* about;
};

/** What the classes' static functions of these names do; any thread. @{ */
BMCBUS_EXPORT void* Lookup(const std::string& path, const Registry& registry);
BMCBUS_EXPORT void Save(void* object, const Registry& registry);
BMCBUS_EXPORT void Unsave(void* object, const Registry& registry);
BMCBUS_EXPORT void Release(void* object, const Registry& registry);
BMCBUS_EXPORT void Cleanup(const Registry& registry);
BMCBUS_EXPORT void CleanupThread(const Registry& registry);
/** @} */

/**
 * The load-time and exit-time work for one registry.
 *
 * At exit the list's memory is freed; the registry is empty then and can still be used, by static
 * destructors and by threads that are still running. Registered objects are not destroyed.
 */
class BMCBUS_EXPORT RegistryLife
{
  public:
    explicit RegistryLife(const Registry& registry);
    ~RegistryLife();
    RegistryLife(const RegistryLife&) = delete;
    RegistryLife& operator=(const RegistryLife&) = delete;

  private:
    ListMutex entry_;
    const Registry& registry_;
};

} // namespace bmcbus::client
