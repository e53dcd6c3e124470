#pragma once

/**
 * @file
 * What the generated classes share: the tables that describe them, their registry, their change
 * callbacks and the accessors of their fields.
 *
 * For generated code. Nothing here blocks unless it says so.
 */

#include <bmcbus/client/type.hpp>
#include <bmcbus/refs.hpp>

#include <algorithm>
#include <concepts>
#include <forward_list>
#include <mutex>
#include <new>
#include <string>

namespace bmcbus::live
{
struct Access;
} // namespace bmcbus::live

namespace bmcbus::client
{

/** A property of an interface. */
struct Property
{
    uint16_t name; ///< where it begins in the interface's names
    uint8_t type;  ///< which of the interface's alternatives
    bool writable;
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
    std::span<const Property> properties;
    Alternatives alternatives; ///< of its property-value variant
    const VariantType* variant;

    const char* NameOf(const Property& property) const { return property_names + property.name; }
    const Type& TypeOf(const Property& property) const { return *alternatives[property.type]; }
};

/** Where an object keeps a property or a signal argument. */
struct Field
{
    uint16_t value;  ///< offset of the value in the object
    uint16_t is_set; ///< offset of its flag
    uint8_t type;    ///< which of the class's types
};

/** All of them, in the order of their declaration. */
struct Fields
{
    std::span<const Field> list;
    Alternatives types;

    const Type& TypeOf(const Field& field) const { return *types[field.type]; }
};

/** A property's number, and whether the operation on it takes the object's mutex. */
class Which
{
  public:
    constexpr Which(uint32_t property, bool lock) : bits_(property << 1U | (lock ? 1U : 0U)) {}

    constexpr uint32_t property() const { return bits_ >> 1U; }
    constexpr bool lock() const { return (bits_ & 1U) != 0; }

  private:
    uint32_t bits_;
};

/** Log lines of generated code. */
inline constexpr unsigned int logSource = 127;

/** One entry of a list of change callbacks, its function's type forgotten. */
struct Callback
{
    void (*function)();
    void* user_data;
};

/**
 * The change callbacks of an object, in the order added.
 *
 * A list never changes once it is made; adding makes a new one. So taking a copy for a signal costs
 * one counter and no memory.
 */
class BMCBUS_EXPORT Callbacks
{
  public:
    void Add(Callback callback);

    std::span<const Callback> list() const
    {
        return list_ ? std::span<const Callback>(*list_) : std::span<const Callback>();
    }

  private:
    std::shared_ptr<const std::vector<Callback>> list_;
};

struct Description;

/**
 * The object as the bus sees it: the user data of its subscriptions and of its pending calls.
 *
 * The destructor cancels what is pending and tells the signal handlers that are running that the
 * object is gone, so a callback may release the very object that called it.
 */
class BMCBUS_EXPORT Anchor
{
  public:
    Anchor(void* object, const Description& about) : object_(object), about_(&about) {}
    ~Anchor();
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;

    void* object() const { return object_; }
    const Description& about() const { return *about_; }

    /** Keeps a request that is under way. */
    BMCBUS_LOCAL void Await(Slot request);
    /** Drops the request whose reply is being handled. */
    BMCBUS_LOCAL void Answered();

    /** Lives on the stack while callbacks run. Linked and unlinked under the object's mutex. */
    class BMCBUS_LOCAL Running
    {
      public:
        Running(Anchor& anchor, std::mutex& mutex);
        ~Running();
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

        bool gone() const { return anchor_ == nullptr; }

      private:
        friend Anchor;
        Anchor* anchor_;
        std::mutex& mutex_;
        Running* next_ = nullptr;
    };

  private:
    void* object_;
    const Description* about_;
    std::forward_list<Slot> pending_;
    Running* running_ = nullptr;
};

/** What a cached proxy class and a subscriber class have in common: where an object keeps what. */
struct Description
{
    const char* label;
    const char* leave; ///< format of a handler's last line
    void (*invoke)(void* object, const Callback& callback);
    uint16_t object_mutex;
    uint16_t path;
    uint16_t ready;
    uint16_t signal_count;
    uint16_t callbacks;
    uint16_t anchor;
    Fields fields;
};

/** The place at @p offset of @p object. */
inline void* Place(void* object, size_t offset)
{
    return static_cast<std::byte*>(object) + offset;
}

/** The field of type T at @p offset of @p object. */
template <class T>
T& At(void* object, size_t offset)
{
    return *std::launder(static_cast<T*>(Place(object, offset)));
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

/** Adds a change callback; null adds nothing. */
BMCBUS_EXPORT void AddCallback(std::mutex& mutex, Callbacks& callbacks, const Callback& callback);

/** A service given as text; null means none. */
inline std::string ServiceText(const char* service)
{
    return service != nullptr ? service : "";
}

/**
 * Text literals and pointers to text, as opposed to everything that converts to them.
 *
 * A pointer converts to `bool` more readily than to `std::string`; the overloads for this concept
 * make a literal mean the service.
 */
template <class T>
concept TextPointer = std::same_as<T, const char*> || std::same_as<T, char*>;

/** Copies every one of @p fields to the address with its index in @p out, under one lock. */
BMCBUS_EXPORT void CopyAll(std::mutex& mutex, const void* object, const Fields& fields,
                           void* const* out);

// One instance per type, not per property.

template <class T>
[[gnu::noinline]] T GetValue(std::mutex& mutex, const T& field)
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
        if (object != nullptr && At<std::string>(object, about.path) == path)
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
    active.push_back(object);
}

/** Saves a new object and lets the registry own it. */
template <class Class>
Class* Register(std::mutex& mutex, std::vector<Class*>& active, std::unique_ptr<Class> object)
{
    Save(mutex, active, object.get());
    return object.release();
}

template <class Class>
void Unsave(std::mutex& mutex, std::vector<Class*>& active, Class* object)
{
    const std::lock_guard lock(mutex);
    const auto found = std::ranges::find(active, object);
    if (found != active.end())
    {
        active.erase(found);
    }
}

template <class Class>
void Cleanup(std::mutex& mutex, std::vector<Class*>& active)
{
    const std::lock_guard lock(mutex);
    for (Class* object : active)
    {
        delete object;
    }
    active.clear();
}

} // namespace bmcbus::client
