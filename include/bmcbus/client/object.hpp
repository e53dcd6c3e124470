#pragma once

/**
 * @file
 * What the generated classes share: the tables that describe them, their registry, their change
 * callbacks and the accessors of their fields.
 *
 * For generated code. Nothing here blocks unless it says so.
 */

#include <bmcbus/client/anchor.hpp>
#include <bmcbus/client/registry.hpp>
#include <bmcbus/client/type.hpp>
#include <bmcbus/reply_type.hpp>

#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bmcbus::client
{

/** The place at @p offset of @p object. */
inline void* Place(void* object, size_t offset)
{
    return static_cast<std::byte*>(object) + offset;
}

/**
 * Where the objects of a class keep their T: made with BMCBUS_MEMBER, called with an object.
 *
 * An offset with the type of what is there, so that it fits into no slot of another type.
 */
template <class T>
class Member
{
  public:
    explicit constexpr Member(size_t offset) : offset_(static_cast<uint16_t>(offset)) {}

    T& operator()(void* object) const
    {
        return *std::launder(static_cast<T*>(Place(object, offset_)));
    }

    constexpr uint16_t offset() const { return offset_; }

  private:
    uint16_t offset_;
};

/** What a Member's offset can reach. */
inline constexpr size_t largestObject = 0x10000;

/** The `Member` for a member of a class of standard layout. */
#define BMCBUS_MEMBER(Class, member)                                                               \
    bmcbus::client::Member<decltype(Class::member)>(offsetof(Class, member))

/** A property of an interface. */
struct Property
{
    uint16_t name_offset; ///< where its name begins in the interface's names
    uint8_t type_index;   ///< of its type in the interface's alternatives
    bool writable;
};

/** A property's number, and whether the operation on it takes the object's mutex. */
struct Access
{
    uint16_t property;
    bool lock;
};

/** Where a name stands among the properties: the number of the first that is not before it. */
struct Position
{
    uint16_t number;
    bool is_property; ///< and that one has this very name
};

/** One value of a result, and where in it; a null type ends a list of them. */
struct OutValue
{
    const Type* type = nullptr;
    size_t offset = 0;
};

/** A method as its calls with results see it. */
struct Method
{
    const char* name;
    std::span<const Type* const> in;
    bmcbus::detail::ReplyType reply;
};

/** Where the result of reading all properties keeps them. */
struct AllProperties
{
    bmcbus::detail::ReplyType reply;
    /** By the property's number: gives the value a place in the result, and the place. */
    void* (*const* emplace)(void* all);
    /** The same in the result's map by name. */
    void* (*entry)(void* all, const char* name);
};

/** One interface of the catalogue. */
struct Interface
{
    const char* name;           ///< on the bus
    const char* short_name;     ///< its last component, the name of the classes
    const char* label;          ///< file label of its log lines
    const char* enter;          ///< format of a constructor's first line
    const char* leave;          ///< and of its last
    const char* property_names; ///< one behind the other, so that they take no relocations
    /** In ascending order of the names; a property's number is its place here. */
    std::span<const Property> properties;
    Alternatives alternatives; ///< of its property-value variant
    const VariantType* variant;
    /** Names of properties that the service has and the classes do not, each with its end; or null.
     */
    const char* left_out = nullptr;
    std::span<const Method> methods{};                    ///< of the direct proxy, as the next two
    std::span<const bmcbus::detail::ReplyType> replies{}; ///< to reads of a property, by its type
    const AllProperties* all = nullptr;

    constexpr const char* NameOf(const Property& property) const
    {
        return property_names + property.name_offset;
    }
    constexpr const Type& TypeOf(const Property& property) const
    {
        return *alternatives[property.type_index];
    }

    BMCBUS_LOCAL Position PositionOf(const char* wanted) const;

    /** Whether @p wanted is one of `left_out`, so that its values are passed over. */
    BMCBUS_LOCAL bool LeavesOut(std::string_view wanted) const;

    /** The number of the property called @p wanted, which is zero-terminated. */
    BMCBUS_LOCAL std::optional<uint16_t> Find(std::string_view wanted) const;
};

/** Whether names can be looked up in the table; for the generated code to assert. */
constexpr bool InOrder(const Interface& interface)
{
    std::string_view before;
    for (const Property& property : interface.properties)
    {
        const std::string_view name = interface.NameOf(property);
        if (name <= before)
        {
            return false;
        }
        before = name;
    }
    return true;
}

/** Where an object keeps a property or a signal argument; made with MakeField. */
struct Field
{
    uint16_t value_offset;
    uint8_t type_index; ///< of its type in the class's types
    Member<bool> is_set;
};

/** A field with the place of its type in @p types, which must be there. */
template <class T>
constexpr Field MakeField(Member<T> value, Member<bool> is_set, Alternatives types)
{
    for (size_t index = 0; index < types.size() && index <= UINT8_MAX; ++index)
    {
        // By their signatures: a sanitizer keeps compilers from comparing the addresses.
        if (std::string_view(types[index]->signature) == typeOf<T>.signature)
        {
            return {.value_offset = value.offset(),
                    .type_index = static_cast<uint8_t>(index),
                    .is_set = is_set};
        }
    }
    throw std::logic_error("the class's types lack the field's");
}

/** The properties by their numbers, or the arguments in the order of the message. */
struct Fields
{
    std::span<const Field> list;
    Alternatives types;

    const Type& TypeOf(const Field& field) const { return *types[field.type_index]; }
};

/** Log lines of generated code. */
inline constexpr unsigned int logSource = 127;

/** What a cached proxy class and a subscriber class have in common: where an object keeps what. */
struct Description
{
    const char* label; ///< file label of its log lines
    const char* leave; ///< format of a handler's last line
    void (*invoke)(void* object, const Callback& callback);
    Member<std::mutex> object_mutex;
    Member<const std::string> path;
    Member<bool> ready;
    Member<uint32_t> signal_count;
    Fields fields;
};

inline std::mutex& Anchor::mutex() const
{
    return about_->object_mutex(object_);
}

inline const std::string& Anchor::path() const
{
    return about_->path(object_);
}

inline bool& Anchor::ready() const
{
    return about_->ready(object_);
}

inline uint32_t& Anchor::signal_count() const
{
    return about_->signal_count(object_);
}

inline void* Anchor::Value(const Field& field) const
{
    return Place(object_, field.value_offset);
}

inline const Type& Anchor::TypeOf(const Field& field) const
{
    return about_->fields.TypeOf(field);
}

/** Calls a change callback of @p Class. */
template <class Class>
void Invoke(void* object, const Callback& callback)
{
    reinterpret_cast<void (*)(Class*, void*)>(callback.function)(static_cast<Class*>(object),
                                                                 callback.user_data);
}

/** A callback with its function's type forgotten. */
template <class Class>
Callback Erase(void (*function)(Class*, void*), void* user_data)
{
    return {reinterpret_cast<void (*)()>(function), user_data};
}

/** Adds a change callback; null adds nothing. Any thread. */
BMCBUS_EXPORT void AddCallback(Anchor& anchor, const Callback& callback);

/** Copies every field to the address with its number in @p out, under one lock. */
BMCBUS_EXPORT void CopyAll(const Anchor& anchor, void* const* out);

// One instance per type, not per property.

template <class Mutex, class T>
[[gnu::noinline]] T GetValue(Mutex& mutex, const T& field)
{
    const std::lock_guard lock(mutex);
    return field;
}

template <class T>
[[gnu::noinline]] void CopyValue(std::mutex& mutex, const T& field, T& value)
{
    const std::lock_guard lock(mutex);
    value = field;
}

template <class T>
[[gnu::noinline]] void CopyFlagged(std::mutex& mutex, const T& field, const bool& flag,
                                   bool& is_set, T& value)
{
    const std::lock_guard lock(mutex);
    is_set = flag;
    value = field;
}

template <class T>
[[gnu::noinline]] void StoreValue(T& field, bool& flag, const T& value)
{
    field = value;
    flag = true;
}

template <class T>
[[gnu::noinline]] void SetValue(std::mutex& mutex, T& field, bool& flag, const T& value)
{
    const std::lock_guard lock(mutex);
    field = value;
    flag = true;
}

// The registry of a class: the objects made by Create, in the order of registration.

template <class Class>
Class* Lookup(std::mutex& mutex, const std::vector<Class*>& active, const std::string& path,
              const Description& about)
{
    const std::lock_guard lock(mutex);
    for (Class* object : active)
    {
        if (object != nullptr && about.path(object) == path)
        {
            return object;
        }
    }
    return nullptr;
}

template <class Class>
void Save(std::mutex& mutex, std::vector<Class*>& active, Class* object)
{
    const std::lock_guard lock(mutex);
    const ListChange change;
    active.push_back(object);
}

/** Saves a new object and lets the registry own it; destroys it where that fails. */
template <class Class>
Class* Register(std::mutex& mutex, std::vector<Class*>& active, Class* object)
{
    try
    {
        Save(mutex, active, object);
    }
    catch (...)
    {
        delete object;
        throw;
    }
    return object;
}

template <class Class>
void Unsave(std::mutex& mutex, std::vector<Class*>& active, Class* object)
{
    const std::lock_guard lock(mutex);
    for (auto each = active.begin(); each != active.end(); ++each)
    {
        if (*each == object)
        {
            const ListChange change;
            active.erase(each);
            return;
        }
    }
}

/** Destroys the objects that are `ours(object)`, each when it has left the list. */
template <class Class, class Ours>
void Cleanup(std::mutex& mutex, std::vector<Class*>& active, Ours ours)
{
    const std::lock_guard lock(mutex);
    for (auto next = active.begin(); next != active.end();)
    {
        Class* const object = *next;
        if (object != nullptr && !ours(object))
        {
            ++next;
            continue;
        }
        {
            const ListChange change;
            next = active.erase(next);
        }
        delete object;
    }
}

} // namespace bmcbus::client
