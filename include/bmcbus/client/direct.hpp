#pragma once

/**
 * @file
 * The run-time half of the direct proxies. For generated code.
 *
 * Every exchange blocks its caller for one method call on the calling thread's default system-bus
 * connection, which is taken for the call and released at its end.
 */

#include <bmcbus/client/object.hpp>
#include <bmcbus/client/target.hpp>

namespace bmcbus::client
{

// What says which property comes last, so that the members of the classes pass on what they were
// given as it is.

/** Reads into the interface's variant @p value. @{ */
BMCBUS_EXPORT void GetVariant(Target& target, bool* ok, void* value, Access access);
BMCBUS_EXPORT void GetVariant(Target& target, void* value, Access access);
/** @} */

/** Reads into a value of the property's own type. @{ */
BMCBUS_EXPORT void GetTyped(Target& target, bool* ok, void* value, Access access);
BMCBUS_EXPORT void GetTyped(Target& target, void* value, Access access);
/** @} */

/** Reads a value of the property's own type; value-initialised when that fails. */
template <class T>
[[gnu::noinline]] T GetOrDefault(Target& target, Access access)
{
    T value{};
    GetTyped(target, &value, access);
    return value;
}

/** Writes what @p variant holds; failures show in the log only. */
BMCBUS_EXPORT void SetVariant(Target& target, const void* variant, Access access);

/** Writes a value of the property's own type. */
BMCBUS_EXPORT void SetTyped(Target& target, const void* value, Access access);

/** The by-name forms; @p lock takes the object's mutex. */
BMCBUS_EXPORT void GetByName(Target& target, bool lock, const std::string& name, void* variant);
BMCBUS_EXPORT void SetByName(Target& target, bool lock, const std::string& name,
                             const void* variant);

/**
 * Calls the method with number @p method; takes no lock. @p in and @p out are the addresses of its
 * arguments, null where there are none.
 */
BMCBUS_EXPORT void Call(Target& target, bool& ok, const void* const* in, void* const* out,
                        uint32_t method);

} // namespace bmcbus::client
