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

/** The first of an array's elements; one that a class does not have is never called. */
template <class T>
class Member<T[]> : public Member<T>
{
  public:
    constexpr Member() : Member<T>(0) {}
    template <size_t Size>
    constexpr Member(Member<T[Size]> array) : Member<T>(array.offset())
    {
    }
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
    /** By the property's number: where in the result its `std::optional` is. */
    const size_t* places;
    /** Where it belongs in the result's map by name. */
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
};

/** A field with the place of its type in @p types, which must be there. */
template <class T>
constexpr Field MakeField(Member<T> value, Alternatives types)
{
    for (size_t index = 0; index < types.size() && index <= UINT8_MAX; ++index)
    {
        // By their signatures: a sanitizer keeps compilers from comparing the addresses.
        if (std::string_view(types[index]->signature) == typeOf<T>.signature)
        {
            return {.value_offset = value.offset(), .type_index = static_cast<uint8_t>(index)};
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
    void (*destroy)(void* object); ///< null does nothing
    Member<Anchor> anchor;
    Member<std::mutex> object_mutex;
    Member<const std::string> path;
    Member<bool> ready;
    Member<uint32_t> signal_count;
    Fields fields{};
    Member<bool[]> set_flags{}; ///< of the fields, in their order

    /** Whether field @p number of @p object was ever set. */
    bool& IsSet(void* object, size_t number) const { return (&set_flags(object))[number]; }
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

inline bool& Anchor::IsSet(size_t field) const
{
    return about_->IsSet(object_, field);
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
BMCBUS_EXPORT void AddCallback(Anchor& anchor, Callback callback);

/** Copies every field to the address with its number in @p out, under one lock. */
BMCBUS_EXPORT void CopyAll(const Anchor& anchor, void* const* out);

/**
 * @name Fields by their numbers
 * Under the object's mutex, except StoreValue, whose caller holds it. Any thread. The numbers come
 * last, so that the members of the classes pass on what they were given as it is.
 * @{
 */
BMCBUS_EXPORT void CopyValue(const Anchor& anchor, void* value, uint32_t field);
BMCBUS_EXPORT void CopyFlagged(const Anchor& anchor, bool& is_set, void* value, uint32_t field);
BMCBUS_EXPORT void SetValue(Anchor& anchor, const void* value, uint32_t field);
BMCBUS_EXPORT void StoreValue(Anchor& anchor, const void* value, uint32_t field);

template <class T>
[[gnu::noinline]] T ValueOf(const Anchor& anchor, uint32_t field)
{
    T value{};
    CopyValue(anchor, &value, field);
    return value;
}
/** @} */

/** What every object has; any thread. @{ */
BMCBUS_EXPORT std::string Path(const Anchor& anchor);
BMCBUS_EXPORT bool Ready(const Anchor& anchor);
BMCBUS_EXPORT uint32_t SignalCount(const Anchor& anchor);
/** @} */

/** A member behind a mutex. */
template <class Mutex, class T>
[[gnu::noinline]] T GetValue(Mutex& mutex, const T& field)
{
    const std::lock_guard lock(mutex);
    return field;
}

} // namespace bmcbus::client
