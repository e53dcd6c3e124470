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

/** Looks the service up when it is empty; never throws a `std::exception`. */
BMCBUS_EXPORT void Construct(Target& target);

/** Reads into the interface's variant @p value; @p ok may be null. */
BMCBUS_EXPORT void GetVariant(Target& target, Access access, bool* ok, void* value);

/** Reads into a value of the property's own type; @p ok may be null. */
BMCBUS_EXPORT void GetTyped(Target& target, Access access, bool* ok, void* value);

/** Reads a value of the property's own type; value-initialised when that fails. */
template <class T>
[[gnu::noinline]] T GetOrDefault(Target& target, Access access)
{
    T value{};
    GetTyped(target, access, nullptr, &value);
    return value;
}

/** Writes what @p variant holds; failures show in the log only. */
BMCBUS_EXPORT void SetVariant(Target& target, Access access, const void* variant);

/** Writes a value of the property's own type. */
BMCBUS_EXPORT void SetTyped(Target& target, Access access, const void* value);

/** The by-name forms; @p lock takes the object's mutex. */
BMCBUS_EXPORT void GetByName(Target& target, bool lock, const std::string& name, void* variant);
BMCBUS_EXPORT void SetByName(Target& target, bool lock, const std::string& name,
                             const void* variant);

/** Calls method @p member; takes no lock. */
BMCBUS_EXPORT void Call(Target& target, const char* member, bool& ok, std::span<const ConstRef> in,
                        std::span<const Ref> out);

} // namespace bmcbus::client
