#pragma once

/**
 * @file
 * The run-time half of the direct proxies. For generated code.
 *
 * Every exchange blocks its caller for one method call on the calling thread's default system-bus
 * connection, which is taken for the call and released at its end.
 */

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

/** The object that a direct proxy stands for. */
struct Target
{
    std::mutex mutex;
    std::string service;
    std::string path;
};

/** Looks the service up when it is empty; never throws a `std::exception`. */
BMCBUS_EXPORT void Construct(Target& target, const Interface& interface);

/** One property of one object, and whether the operation takes the object's mutex. */
struct Access
{
    Target& target;
    const Interface& interface;
    size_t property;
    bool lock;
};

/** Reads into the variant @p value; @p ok may be null. */
BMCBUS_EXPORT void GetVariant(const Access& access, bool* ok, void* value, const VariantType& type);

/** Reads into a value of the property's own type; @p ok may be null. */
BMCBUS_EXPORT void GetTyped(const Access& access, bool* ok, void* value);

/** Reads a value of the property's own type; value-initialised when that fails. */
template <class T>
[[gnu::noinline]] T GetOrDefault(const Access& access)
{
    T value{};
    GetTyped(access, nullptr, &value);
    return value;
}

/** Writes a property; failures show in the log only. */
BMCBUS_EXPORT void Set(const Access& access, ConstRef value);

/** The by-name forms. */
BMCBUS_EXPORT void GetByName(Target& target, const Interface& interface, bool lock,
                             const std::string& name, void* value, const VariantType& type);
BMCBUS_EXPORT void SetByName(Target& target, const Interface& interface, bool lock,
                             const std::string& name, ConstRef value);

/** Calls method @p member; takes no lock. */
BMCBUS_EXPORT void Call(Target& target, const Interface& interface, const char* member, bool& ok,
                        std::span<const ConstRef> in, std::span<const Ref> out);

} // namespace bmcbus::client
