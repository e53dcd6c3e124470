#pragma once

// What every_member.cpp.j2 writes down of each class, with the types forgotten: values go in and
// come out as kit::Value. There is one instance for a class and a type, not for each member.

#include <bmcbus/testing/value.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace every_member
{

namespace kit = bmcbus::testing;

using Values = std::vector<kit::Value>;

// An interface's property-value variant, made of a value and turned into one.
template <class Variant>
struct Convert;

template <class... T>
struct Convert<std::variant<T...>>
{
    using Variant = std::variant<T...>;

    template <class Held>
    static void Take(const kit::Value& value, Variant& made)
    {
        if (value.Signature() == kit::SignatureOf<Held>())
        {
            made = value.Get<Held>();
        }
    }
    static Variant From(const kit::Value& value)
    {
        Variant made;
        (Take<T>(value, made), ...);
        return made;
    }
    static kit::Value To(const Variant& variant)
    {
        return std::visit([](const auto& value) { return kit::Value(value); }, variant);
    }
    static std::vector<std::string> Signatures() { return {kit::SignatureOf<T>()...}; }
};

// A property of a proxy or an argument of a signal, by all its accessors. `value` is what a
// reference parameter holds before; `flag` stays as it is where an accessor has none.
struct Member
{
    Member(const char* member, std::string type) : name(member), signature(std::move(type)) {}
    Member(const Member&) = default;
    virtual ~Member() = default;
    virtual kit::Value Get(void* object, unsigned int way, const kit::Value& value,
                           bool& flag) const = 0;
    virtual void Set(void*, unsigned int, const kit::Value&) const {}

    const std::string name;
    const std::string signature;
    bool writable = true; // has setters of its own
};

using Members = std::vector<std::unique_ptr<const Member>>;

// Ways to get: returned, into a reference, with a flag.
template <class Class, class T>
struct Argument : Member
{
    static constexpr unsigned int flagged = 2;

    Argument(const char* member, T (Class::*a)(), void (Class::*b)(T&),
             void (Class::*c)(bool&, T&)) :
        Member(member, kit::SignatureOf<T>()), get(a), getInto(b), getFlagged(c)
    {
    }
    kit::Value Get(void* object, unsigned int way, const kit::Value& value,
                   bool& flag) const override
    {
        auto& at = *static_cast<Class*>(object);
        T held = value.Get<T>();
        switch (way)
        {
            case 0:
                held = (at.*get)();
                break;
            case 1:
                (at.*getInto)(held);
                break;
            default:
                (at.*getFlagged)(flag, held);
        }
        return held;
    }

    T (Class::*get)();
    void (Class::*getInto)(T&);
    void (Class::*getFlagged)(bool&, T&);
};

// Ways to set: typed and typed with the caller's lock; as a variant, and by name, each in both
// forms.
template <class Class, class T>
struct Setters
{
    static constexpr unsigned int typed = 2; // the first two

    using Variant = typename Class::Variant;

    void Set(Class& at, unsigned int way, const std::string& name, const kit::Value& value) const
    {
        if (way < typed)
        {
            (at.*(way == 0 ? set : setLocked))(value.Get<T>());
            return;
        }
        const Variant variant = Convert<Variant>::From(value);
        if (way < 4)
        {
            (at.*(way == 2 ? setVariant : setLockedVariant))(variant);
        }
        else if constexpr (requires {
                               at.SetByName(name, variant);
                           }) // not in a class that is all to read
        {
            way == 4 ? at.SetByName(name, variant) : at.SetByNameLocked(name, variant);
        }
    }

    void (Class::*set)(const T&) = nullptr;
    void (Class::*setVariant)(const Variant&) = nullptr;
    void (Class::*setLocked)(const T&) = nullptr;
    void (Class::*setLockedVariant)(const Variant&) = nullptr;
};

template <class Class, class T>
struct Property : Argument<Class, T>
{
    Property(Argument<Class, T> getters, Setters<Class, T> how) :
        Argument<Class, T>(std::move(getters)), setters(how)
    {
    }
    void Set(void* object, unsigned int way, const kit::Value& value) const override
    {
        setters.Set(*static_cast<Class*>(object), way, this->name, value);
    }

    Setters<Class, T> setters;
};

// Ways to get: those of Argument; then the variant with a flag, with a flag and the caller's lock,
// without a flag, without a flag and with the lock; then by name in both forms.
template <class Class, class T>
struct Remote : Property<Class, T>
{
    using Variant = typename Class::Variant;
    using Plain = void (Class::*)(Variant&);
    using Flagged = void (Class::*)(bool&, Variant&);

    Remote(Argument<Class, T> getters, Flagged a, Flagged b, Plain c, Plain d,
           Setters<Class, T> how = {}) :
        Property<Class, T>(std::move(getters), how),
        flagged(a),
        flaggedLocked(b),
        plain(c),
        plainLocked(d)
    {
        this->writable = how.set != nullptr;
    }
    kit::Value Get(void* object, unsigned int way, const kit::Value& value,
                   bool& flag) const override
    {
        if (way < 3)
        {
            return Argument<Class, T>::Get(object, way, value, flag);
        }
        auto& at = *static_cast<Class*>(object);
        Variant held = Convert<Variant>::From(value);
        switch (way)
        {
            case 3:
                (at.*flagged)(flag, held);
                break;
            case 4:
                (at.*flaggedLocked)(flag, held);
                break;
            case 5:
                (at.*plain)(held);
                break;
            case 6:
                (at.*plainLocked)(held);
                break;
            case 7:
                at.GetByName(this->name, held);
                break;
            default:
                at.GetByNameLocked(this->name, held);
        }
        return Convert<Variant>::To(held);
    }

    Flagged flagged;
    Flagged flaggedLocked;
    Plain plain;
    Plain plainLocked;
};

// A cached proxy class or a subscriber class.
struct KeptClass
{
    const char* name;
    const char* interface;
    const char* signal; // null for a proxy
    Members members;
    std::vector<std::string> alternatives;
    Values (*getAll)(void* object);
    std::shared_ptr<void> (*make)();
    bool (*ready)(void* object);
    uint32_t (*signalCount)(void* object);
};

inline const std::string service = "com.example.Owner";
inline const std::string path = "/com/example/object";

// `Class` is a cached proxy if it has values to give to a service, otherwise a subscriber.
template <class Class>
KeptClass Kept(const char* name, const char* interface, const char* signal, Members members,
               Values (*getAll)(void*))
{
    KeptClass kept{name, interface, signal, std::move(members), {}, getAll, {}, {}, {}};
    if constexpr (requires { typename Class::Variant; })
    {
        kept.alternatives = Convert<typename Class::Variant>::Signatures();
        kept.make = []() -> std::shared_ptr<void>
        { return std::make_shared<Class>(path, service); };
    }
    else
    {
        kept.make = []() -> std::shared_ptr<void> { return std::make_shared<Class>(path); };
    }
    kept.ready = [](void* object) { return static_cast<Class*>(object)->Ready(); };
    kept.signalCount = [](void* object) { return static_cast<Class*>(object)->SignalCount(); };
    return kept;
}

struct Method
{
    const char* name;
    std::vector<std::string> ins;
    std::vector<std::string> outs;
    // Fills `out`, which holds what the parameters hold before.
    void (*call)(void* object, bool& ok, const Values& in, Values& out);
};

// An operation with a result; see every_result.hpp.
struct Operation;

// A direct proxy class.
struct DirectClass
{
    const char* name;
    const char* interface;
    bool writable; // has setters at all
    Members properties;
    std::vector<std::string> alternatives;
    std::vector<Method> methods;
    std::vector<std::shared_ptr<const Operation>> operations;
    std::shared_ptr<void> (*make)();
};

// Made by every_member.cpp.j2.
const std::vector<KeptClass>& KeptClasses();
const std::vector<DirectClass>& DirectClasses();

} // namespace every_member
