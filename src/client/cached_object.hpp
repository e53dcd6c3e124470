#pragma once

// A cached proxy as the run-time half handles it, and the one way to change its copy.

#include "client/property_map.hpp"
#include "client/value.hpp"

#include <bmcbus/client/cached.hpp>

namespace bmcbus::client
{

// An object's anchor, known to be a cached proxy's. Where a member changes, take the mutex.
class CachedObject
{
  public:
    explicit CachedObject(Anchor& anchor) : anchor_(&anchor) {}

    Anchor& anchor() const { return *anchor_; }
    const CachedClass& about() const { return static_cast<const CachedClass&>(anchor_->about()); }
    const Interface& interface() const { return *about().interface; }
    const char* label() const { return about().label; }

    std::mutex& mutex() const { return anchor_->mutex(); }
    const std::string& path() const { return anchor_->path(); }
    bool& ready() const { return anchor_->ready(); }
    std::string& service() const { return about().service(anchor_->object()); }
    bool use_async() const { return about().use_async(anchor_->object()); }

    // The number of a property is that of its field.
    const Field& field(uint16_t property) const { return about().fields.list[property]; }

  private:
    Anchor* anchor_;
};

// A value on its way into a field: moved when it is ours, copied when it is borrowed.
class Source
{
  public:
    explicit Source(ConstRef borrowed) : type_(borrowed.type), from_(borrowed.value) {}
    explicit Source(Value& owned) : type_(owned.type()), movable_(owned.get()) {}

    const Type* type() const { return type_; }
    void AssignTo(void* field) const;

  private:
    const Type* type_;
    const void* from_ = nullptr;
    void* movable_ = nullptr;
};

// Stores one property. What is not of its type is refused with a line; throws no std::exception.
void Store(CachedObject object, Access access, const Source& source);

// The same for the property called `name`; one that the interface does not have is logged.
void StoreNamed(CachedObject object, std::string_view name, bool lock, const Source& source);

// The same for all of a map, in ascending order of the names; `before` is called with each first.
template <class Before>
void StoreAll(CachedObject object, PropertyMap& values, bool lock, Before before);

// A line of the by-name setters.
void LogSetByName(CachedObject object, const char* name, bool lock);
void LogNoProperty(CachedObject object, const char* name, bool lock);

template <class Before>
void StoreAll(CachedObject object, PropertyMap& values, bool lock, Before before)
{
    values.ForEach(
        [&](const char* name, uint16_t property, Value& value)
        {
            before(name);
            LogSetByName(object, name, lock);
            Store(object, {.property = property, .lock = lock}, Source(value));
        },
        [&](const char* name)
        {
            if (object.interface().LeavesOut(name))
            {
                return;
            }
            before(name);
            LogSetByName(object, name, lock);
            LogNoProperty(object, name, lock);
        });
}

} // namespace bmcbus::client
