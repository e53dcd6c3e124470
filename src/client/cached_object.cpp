// Stores values into the copy that a cached proxy keeps, each only where it is of its property's
// type.

#include "client/cached_object.hpp"

#include "client/member_log.hpp"

namespace bmcbus::client
{
namespace
{

// What a setter's log lines are called.
const char* SetterPrefix(bool lock)
{
    return lock ? "Set_" : "SetLocked_";
}

const char* ByName(bool lock)
{
    return lock ? "SetByName" : "SetByNameLocked";
}

ConstRef Held(CachedObject object, const void* variant)
{
    return object.interface().variant->held(variant);
}

} // namespace

void Source::AssignTo(void* field) const
{
    if (movable_ != nullptr)
    {
        type_->move(field, movable_);
    }
    else
    {
        type_->copy(field, from_);
    }
}

void Store(CachedObject object, Access access, const Source& source)
{
    const Interface& interface = object.interface();
    const Property& property = interface.properties[access.property];
    if (source.type() != &interface.TypeOf(property))
    {
        CLIENT_LOG(error, object.label(),
                   MemberName(SetterPrefix(access.lock), interface.NameOf(property)).c_str(),
                   "invalid type in variant");
        return;
    }
    try
    {
        std::unique_lock lock(object.mutex(), std::defer_lock);
        if (access.lock)
        {
            lock.lock();
        }
        source.AssignTo(object.anchor().Value(object.field(access.property)));
        object.anchor().IsSet(access.property) = true;
    }
    catch (const std::exception& error)
    {
        LogException(object.label(), SetterPrefix(access.lock), interface.NameOf(property), error);
    }
}

void LogSetByName(CachedObject object, const char* name, bool lock)
{
    CLIENT_LOG(trace, object.label(), ByName(lock), "property_name=[%s]", name);
}

void LogNoProperty(CachedObject object, const char* name, bool lock)
{
    CLIENT_LOG(error, object.label(), ByName(lock), "invalid property_name=[%s]", name);
}

void StoreNamed(CachedObject object, std::string_view name, bool lock, const Source& source)
{
    LogSetByName(object, name.data(), lock);
    if (const std::optional<uint16_t> property = object.interface().Find(name))
    {
        Store(object, {.property = *property, .lock = lock}, source);
        return;
    }
    LogNoProperty(object, name.data(), lock);
}

void SetProperty(Anchor& anchor, const void* variant, Access access)
{
    const CachedObject object(anchor);
    Store(object, access, Source(Held(object, variant)));
}

void SetByName(Anchor& anchor, const std::string& name, bool lock, const void* variant)
{
    const CachedObject object(anchor);
    StoreNamed(object, name, lock, Source(Held(object, variant)));
}

} // namespace bmcbus::client
