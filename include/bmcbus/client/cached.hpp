#pragma once

/**
 * @file
 * The run-time half of the cached proxies. For generated code.
 */

#include <bmcbus/client/object.hpp>
#include <bmcbus/message.hpp>

#include <map>

namespace bmcbus::client
{

/** What only a cached proxy class has. */
struct CachedParts
{
    const Interface* interface;
    const char* enter_changed; ///< formats of the handlers' first lines
    const char* enter_added;
    const char* enter_removed;
    Member<Slot> properties_changed_match;
    Member<Slot> interfaces_added_match;
    Member<Slot> interfaces_removed_match;
    Member<std::string> service;
    Member<const bool> use_async;
    void* (*make)(std::string path, bool use_async); ///< an object that is on no bus
};

/** A cached proxy class. Its fields are numbered as the interface's properties. */
struct CachedClass : Description, CachedParts
{
};

// The functions take the anchor of an object whose class is a CachedClass.

/**
 * Takes @p service unless it is null, adds @p first if it has a function, installs the matches and
 * starts the first read; never throws a `std::exception`.
 *
 * Blocks for three AddMatch calls and, without `use_async`, for the lookup and the first read.
 */
BMCBUS_EXPORT void Construct(Anchor& anchor, std::string* service, Callback first);

/** Makes an object in this way, takes @p path for it, and lets the registry own it. */
BMCBUS_EXPORT void* Make(std::string* service, std::string& path, Callback first, bool use_async,
                         const Registry& registry);

BMCBUS_EXPORT void InitialGetAll(Anchor& anchor);
BMCBUS_EXPORT void ServiceIsSet(Anchor& anchor);
BMCBUS_EXPORT void ServiceFound(Anchor& anchor, bool success, const std::string& found);

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

BMCBUS_EXPORT void PropertiesRead(Anchor& anchor, bool success, const NamedRefs& values);

/** The same for a map of variants. */
template <class Variant>
void PropertiesRead(Anchor& anchor, bool success, const std::map<std::string, Variant>& values)
{
    auto position = values.begin();
    const auto next = [](void* at)
    {
        const auto& [name, value] = *(*static_cast<decltype(position)*>(at))++;
        return NamedRef{name, Held(value)};
    };
    PropertiesRead(anchor, success, NamedRefs{values.size(), next, &position});
}

BMCBUS_EXPORT void Changed(Anchor& anchor, Message& message);
BMCBUS_EXPORT void Added(Anchor& anchor, Message& message);
BMCBUS_EXPORT void Removed(Anchor& anchor, Message& message);

/** Stores what @p variant holds, if that is the property's type. */
BMCBUS_EXPORT void SetProperty(Anchor& anchor, const void* variant, Access access);

/** The same for the property called @p name; @p lock takes the object's mutex. */
BMCBUS_EXPORT void SetByName(Anchor& anchor, const std::string& name, bool lock,
                             const void* variant);

} // namespace bmcbus::client
