#pragma once

/**
 * @file
 * The run-time half of the cached proxies. For generated code.
 */

#include <bmcbus/client/object.hpp>

#include <map>

namespace bmcbus::client
{

/** A cached proxy class: what it shares with the subscribers, and what only it has. */
struct CachedClass : Description
{
    const Interface* interface;
    const char* enter_changed; ///< formats of the handlers' first lines
    const char* enter_added;
    const char* enter_removed;
    uint16_t properties_changed_match;
    uint16_t interfaces_added_match;
    uint16_t interfaces_removed_match;
    uint16_t service;
    uint16_t use_async;
    void* (*make)(std::string& path); ///< an object that is on no bus
    void (*destroy)(void* object);
};

/**
 * Adds @p first if it has a function, installs the matches and starts the first read; never throws
 * a `std::exception`.
 *
 * Blocks for three AddMatch calls and, without `use_async`, for the lookup and the first read.
 */
BMCBUS_EXPORT void Construct(void* object, const CachedClass& about, const Callback& first);

BMCBUS_EXPORT void InitialGetAll(void* object, const CachedClass& about);
BMCBUS_EXPORT void ServiceIsSet(void* object, const CachedClass& about);
BMCBUS_EXPORT void ServiceFound(void* object, const CachedClass& about, bool success,
                                const std::string& found);

/** One property of a map, borrowed. */
struct NamedRef
{
    std::string_view name; ///< zero-terminated
    ConstRef value;
};

/** All of them in order, one with every call of `next`. */
struct NamedRefs
{
    size_t size;
    NamedRef (*next)(void* position);
    void* position;
};

BMCBUS_EXPORT void PropertiesRead(void* object, const CachedClass& about, bool success,
                                  const NamedRefs& values);

/** The same for a map of variants. */
template <class Variant>
void PropertiesRead(void* object, const CachedClass& about, bool success,
                    const std::map<std::string, Variant>& values)
{
    auto position = values.begin();
    const auto next = [](void* at)
    {
        const auto& [name, value] = *(*static_cast<decltype(position)*>(at))++;
        return NamedRef{name, Held(value)};
    };
    PropertiesRead(object, about, success, NamedRefs{values.size(), next, &position});
}

BMCBUS_EXPORT void Changed(void* object, const CachedClass& about, sd_bus_message* message);
BMCBUS_EXPORT void Added(void* object, const CachedClass& about, sd_bus_message* message);
BMCBUS_EXPORT void Removed(void* object, const CachedClass& about, sd_bus_message* message);

/** Stores what @p variant holds, if that is the property's type. */
BMCBUS_EXPORT void SetProperty(void* object, const CachedClass& about, Which which,
                               const void* variant);

/** The same for the property called @p name; @p lock takes the object's mutex. */
BMCBUS_EXPORT void SetByName(void* object, const CachedClass& about, const std::string& name,
                             bool lock, const void* variant);

} // namespace bmcbus::client
