#pragma once

// The checks that every_member.cpp.j2 applies to every generated member. One instance per type.

#include "log_recorder.hpp"
#include "no_bus.hpp"
#include "sample.hpp"

#include <bmcbus/testing/fake_service.hpp>
#include <bmcbus/testing/private_bus.hpp>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <variant>

namespace every_member
{

namespace kit = bmcbus::testing;

inline const std::string service = "com.example.Owner";
inline const std::string path = "/com/example/object";

// How many lines of an error's level were written by `function` with `text`.
inline size_t Errors(const std::string& function, const std::string& text)
{
    return test::CountLog(2, 127, function, text);
}

// What every test starts with: a bus, an object with the interface, and a connection that stays.
struct Setting
{
    explicit Setting(const std::string& interface) : object(service, path, {interface})
    {
        sd_bus_default_system(&own);
        test::ClearLog();
    }
    ~Setting()
    {
        sd_bus_flush_close_unref(own);
    }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    kit::PrivateBus bus;
    kit::FakeService object;
    sd_bus* own = nullptr;
};

// --- direct proxies -----------------------------------------------------------------------------

template <class Edge, class T>
struct Getters
{
    using Variant = typename Edge::Variant;

    T (Edge::*get)();
    void (Edge::*into)(T&);
    void (Edge::*checked)(bool&, T&);
    void (Edge::*variant)(Variant&);
    void (Edge::*checkedVariant)(bool&, Variant&);
    void (Edge::*lockedVariant)(Variant&);
    void (Edge::*checkedLockedVariant)(bool&, Variant&);
};

template <class Edge, class T>
struct DirectSetters
{
    using Variant = typename Edge::Variant;

    void (Edge::*typed)(const T&);
    void (Edge::*variant)(const Variant&);
    void (Edge::*locked)(const T&);
    void (Edge::*lockedVariant)(const Variant&);
};

template <class... T>
struct In
{
};
template <class... T>
struct Out
{
};

template <class Edge>
class Direct : Setting
{
  public:
    explicit Direct(const std::string& name) : Setting(name), interface(name), proxy(service, path)
    {
    }

    template <class T>
    void Reads(const std::string& name, unsigned int index, const Getters<Edge, T>& getters)
    {
        const T right = sample::Make<T>(index);
        object->SetQuietly({{name, kit::Value(right)}});
        ReadsRight(getters, right);
        EXPECT_EQ(object.Calls("Get").size(), 7U);
        for (const kit::Call& call : object.Calls("Get"))
        {
            EXPECT_EQ(call.Arguments(), "ss \"" + interface + "\" \"" + name + "\"");
        }
        EXPECT_EQ(test::Log(2).size(), 0U) << test::Describe(test::Log(2));

        object.On("Get", name).ReplyError("com.example.Error.Broken", "so there");
        ReadsError(name, getters);
        object.On("Get", name).Reply({kit::Value::Variant(int64_t{-5})});
        ReadsWrongType(name, getters);
    }

    template <class T>
    void ReadsByName(const std::string& name, unsigned int index)
    {
        object.Heal();
        const T right = sample::Make<T>(index + 1);
        object->SetQuietly({{name, kit::Value(right)}});
        Variant value;
        proxy.GetByName(name, value);
        EXPECT_EQ(value, Variant(right));
        value = Variant();
        proxy.GetByNameLocked(name, value);
        EXPECT_EQ(value, Variant(right));
    }

    template <class T>
    void Writes(const std::string& name, const DirectSetters<Edge, T>& setters)
    {
        const auto write = [&](unsigned int index, auto setter, const auto& value)
        {
            (proxy.*setter)(value);
            ExpectWritten<T>(name, index);
        };
        write(11, setters.typed, sample::Make<T>(11));
        write(12, setters.variant, Variant(sample::Make<T>(12)));
        write(13, setters.locked, sample::Make<T>(13));
        write(14, setters.lockedVariant, Variant(sample::Make<T>(14)));

        object.On("Set").Once().ReplyError("com.example.Error.Broken", "so there");
        test::ClearLog();
        (proxy.*setters.typed)(sample::Make<T>(15));
        EXPECT_EQ(Errors("SetLocked_" + name, "EXCEPTION sd_bus_call: com.example.Error.Broken: "
                                              "so there"),
                  1U)
            << test::Describe(test::Log());
        ExpectWritten<T>(name, 14, 15);
    }

    template <class T>
    void WritesByName(const std::string& name)
    {
        proxy.SetByName(name, Variant(sample::Make<T>(16)));
        ExpectWritten<T>(name, 16);
        proxy.SetByNameLocked(name, Variant(sample::Make<T>(17)));
        ExpectWritten<T>(name, 17);
    }

    template <class T>
    void RefusesToWrite(const std::string& name)
    {
        proxy.SetByName(name, Variant(sample::Make<T>(18)));
        proxy.SetByNameLocked(name, Variant(sample::Make<T>(18)));
        EXPECT_EQ(Errors("SetByName", "invalid property_name=[" + name + "]"), 1U);
        EXPECT_EQ(Errors("SetByNameLocked", "invalid property_name=[" + name + "]"), 1U);
        EXPECT_TRUE(object.Calls("Set").empty());
    }

    template <class Method, class... I, class... O>
    void Calls(const std::string& name, Method method, In<I...>, Out<O...>)
    {
        const auto in = sample::Make<std::tuple<I...>>(20);
        const auto right = sample::Make<std::tuple<O...>>(40);
        const auto before = sample::Make<std::tuple<O...>>(80);
        std::vector<kit::Value> reply = ValuesOf(right);
        object->OnCall(name,
                       [&](const kit::Call&)
                       {
                           return reply;
                       });
        std::tuple<O...> out = before;
        EXPECT_TRUE(Invoke(method, in, out));
        EXPECT_EQ(out, right);
        EXPECT_EQ(object.Calls(name).at(0).interface, interface);
        EXPECT_EQ(object.Calls(name).at(0).arguments, ValuesOf(in));

        // What was read before the failure stays, the rest is left alone.
        reply.back() = kit::Value::Variant(int64_t{1});
        object.On(name).Once().Reply(reply);
        out = before;
        EXPECT_FALSE(Invoke(method, in, out));
        std::tuple<O...> expected = right;
        std::get<sizeof...(O) - 1>(expected) = std::get<sizeof...(O) - 1>(before);
        EXPECT_EQ(out, expected);
        EXPECT_EQ(test::Log(2).size(), 1U) << test::Describe(test::Log(2));

        object.On(name).ReplyError("com.example.Error.Broken", "so there");
        out = before;
        EXPECT_FALSE(Invoke(method, in, out));
        EXPECT_EQ(out, before);
        EXPECT_EQ(
            Errors("Call_" + name, "EXCEPTION sd_bus_call: com.example.Error.Broken: so there"),
            1U);
        object.On(name).Reply({});
        EXPECT_FALSE(Invoke(method, in, out));
        EXPECT_EQ(out, before);
    }

  private:
    template <class Class>
    struct VariantOf
    {
        using Type = std::monostate;
    };
    template <class Class>
    requires requires
    {
        typename Class::Variant;
    }
    struct VariantOf<Class>
    {
        using Type = typename Class::Variant;
    };
    using Variant = typename VariantOf<Edge>::Type;

    template <class T>
    void ReadsRight(const Getters<Edge, T>& getters, const T& right)
    {
        const auto typed = [&](auto read)
        {
            T value{};
            EXPECT_TRUE(read(value));
            EXPECT_EQ(value, right);
        };
        const auto variant = [&](auto read)
        {
            Variant value;
            EXPECT_TRUE(read(value));
            EXPECT_EQ(value, Variant(right));
        };
        All(getters, typed, variant);
    }

    template <class T>
    void ReadsError(const std::string& name, const Getters<Edge, T>& getters)
    {
        test::ClearLog();
        const T before = sample::Make<T>(99);
        bool plain = true;
        const auto typed = [&](auto read)
        {
            T value = before;
            EXPECT_FALSE(read(value));
            EXPECT_EQ(value, std::exchange(plain, false) ? T{} : before);
        };
        const auto variant = [&](auto read)
        {
            Variant value(before);
            EXPECT_FALSE(read(value));
            EXPECT_EQ(value, Variant(before));
        };
        All(getters, typed, variant, false);
        EXPECT_EQ(Errors("GetLocked_" + name, "EXCEPTION sd_bus_call: com.example.Error.Broken: "
                                              "so there"),
                  7U)
            << test::Describe(test::Log());
        EXPECT_EQ(test::Log(2).size(), 7U);
    }

    // A type that no alternative has reads as the first one.
    template <class T>
    void ReadsWrongType(const std::string& name, const Getters<Edge, T>& getters)
    {
        test::ClearLog();
        const T before = sample::Make<T>(99);
        const bool first = std::holds_alternative<T>(Variant());
        bool plain = true;
        const auto typed = [&](auto read)
        {
            T value = before;
            EXPECT_EQ(read(value), first);
            EXPECT_EQ(value, std::exchange(plain, false) || first ? T{} : before);
        };
        const auto variant = [&](auto read)
        {
            Variant value(before);
            EXPECT_TRUE(read(value));
            EXPECT_EQ(value, Variant());
        };
        All(getters, typed, variant, first);
        EXPECT_EQ(Errors("Get_" + name, "invalid type in variant"), first ? 0U : 3U)
            << test::Describe(test::Log());
        EXPECT_EQ(test::Log(2).size(), first ? 0U : 3U);
    }

    // The seven getters, each as a function that fills a value and gives its flag. `otherwise` and
    // true stand for the flag where there is none.
    template <class T, class Typed, class InVariant>
    void All(const Getters<Edge, T>& getters, Typed typed, InVariant variant, bool typedFlag = true)
    {
        bool ok = false;
        const auto with = [&](auto getter)
        {
            return [&, getter](auto& value)
            {
                ok = !ok; // must not matter
                (proxy.*getter)(ok, value);
                return ok;
            };
        };
        const auto without = [&](auto getter, bool flag)
        {
            return [&, getter, flag](auto& value)
            {
                (proxy.*getter)(value);
                return flag;
            };
        };
        typed(
            [&](T& value)
            {
                value = (proxy.*getters.get)();
                return typedFlag;
            });
        typed(without(getters.into, typedFlag));
        typed(with(getters.checked));
        variant(with(getters.checkedVariant));
        const bool variantFlag = ok;
        variant(with(getters.checkedLockedVariant));
        variant(without(getters.variant, variantFlag));
        variant(without(getters.lockedVariant, variantFlag));
    }

    template <class T>
    void ExpectWritten(const std::string& name, unsigned int index, unsigned int sent = 0)
    {
        EXPECT_EQ(object->Get(name), kit::Value(sample::Make<T>(index)));
        const std::vector<kit::Call> calls = object.Calls("Set");
        object.ClearCalls();
        ASSERT_EQ(calls.size(), 1U);
        const std::vector<kit::Value> expected = {
            interface, name,
            kit::Value::Variant(kit::Value(sample::Make<T>(sent != 0 ? sent : index)))};
        EXPECT_EQ(calls[0].arguments, expected);
    }

    template <class Tuple>
    static std::vector<kit::Value> ValuesOf(const Tuple& values)
    {
        return std::apply(
            [](const auto&... value)
            {
                return std::vector<kit::Value>{kit::Value(value)...};
            },
            values);
    }

    template <class Method, class... I, class... O>
    bool Invoke(Method method, const std::tuple<I...>& in, std::tuple<O...>& out)
    {
        test::ClearLog();
        bool ok = !flag_;
        flag_ = ok;
        std::apply(
            [&](const I&... i)
            {
                std::apply(
                    [&](O&... o)
                    {
                        (proxy.*method)(ok, i..., o...);
                    },
                    out);
            },
            in);
        return ok;
    }

    std::string interface;
    Edge proxy;
    bool flag_ = false;
};

// --- cached proxies -----------------------------------------------------------------------------

template <class Cache, class T>
struct Property
{
    using Type = T;
    using Variant = typename Cache::Variant;

    const char* name;
    T (Cache::*get)();
    void (Cache::*into)(T&);
    void (Cache::*flagged)(bool&, T&);
    void (Cache::*set)(const T&);
    void (Cache::*setVariant)(const Variant&);
    void (Cache::*setLocked)(const T&);
    void (Cache::*setLockedVariant)(const Variant&);
};

// The accessors of one argument of a signal.
template <class Class, class T>
struct Argument
{
    using Type = T;

    const char* name;
    T (Class::*get)();
    void (Class::*into)(T&);
    void (Class::*flagged)(bool&, T&);
};

// Calls `use` with every member and its number.
template <class Members, class Use>
void ForEach(const Members& members, Use use)
{
    unsigned int index = 0;
    std::apply(
        [&](const auto&... member)
        {
            (use(member, ++index), ...);
        },
        members);
}

template <class Members>
kit::NamedValues Samples(const Members& members, unsigned int round)
{
    kit::NamedValues values;
    ForEach(members,
            [&]<class Member>(const Member& member, unsigned int index)
            {
                values.emplace_back(member.name,
                                    kit::Value(sample::Make<typename Member::Type>(index, round)));
            });
    return values;
}

template <class Class, class Member>
void ExpectValue(Class& object, const Member& member, const typename Member::Type& value, bool set)
{
    using T = typename Member::Type;
    EXPECT_EQ((object.*member.get)(), value) << member.name;
    T copy = sample::Make<T>(201);
    (object.*member.into)(copy);
    EXPECT_EQ(copy, value) << member.name;
    copy = sample::Make<T>(201);
    bool flag = !set;
    (object.*member.flagged)(flag, copy);
    EXPECT_EQ(copy, value) << member.name;
    EXPECT_EQ(flag, set) << member.name;
}

template <class Class, class... Members>
void ExpectAll(Class& object, const std::tuple<Members...>& members, unsigned int round)
{
    ForEach(members,
            [&]<class Member>(const Member& member, unsigned int index)
            {
                ExpectValue(object, member, sample::Make<typename Member::Type>(index, round),
                            true);
            });
    const auto expected = sample::Make<std::tuple<typename Members::Type...>>(1, round);
    std::tuple<typename Members::Type...> all;
    std::apply(
        [&](auto&... value)
        {
            object.Get(value...);
        },
        all);
    EXPECT_TRUE(all == expected);
}

template <class Class, class Members>
void ExpectNothing(Class& object, const Members& members)
{
    EXPECT_FALSE(object.Ready());
    EXPECT_EQ(object.SignalCount(), 0U);
    ForEach(members,
            [&]<class Member>(const Member& member, unsigned int)
            {
                ExpectValue(object, member, typename Member::Type{}, false);
            });
}

template <class Cache, class Members>
void FirstRead(const std::string& interface, const Members& members)
{
    Setting setting(interface);
    setting.object->SetQuietly(Samples(members, 0));
    Cache object(path, service);
    EXPECT_TRUE(object.Ready());
    EXPECT_EQ(object.SignalCount(), 0U);
    EXPECT_EQ(test::Log(2).size(), 0U) << test::Describe(test::Log(2));
    ExpectAll(object, members, 0);
    ASSERT_EQ(setting.object.Calls("GetAll").size(), 1U);
    EXPECT_EQ(setting.object.Calls("GetAll")[0].Arguments(), "s \"" + interface + "\"");
}

// An object that has read nothing yet.
template <class Cache, class Members>
std::unique_ptr<Cache> Unread(Setting& setting, const Members& members)
{
    setting.object.On("GetAll").ReplyError("com.example.Error.Broken");
    auto object = std::make_unique<Cache>(path, service);
    ExpectNothing(*object, members);
    test::ClearLog();
    return object;
}

template <class Cache>
void AwaitSignals(Cache& object, uint32_t count)
{
    ASSERT_TRUE(kit::Dispatch(
        [&]
        {
            return object.SignalCount() == count;
        }));
    EXPECT_TRUE(object.Ready());
    EXPECT_EQ(test::Log(2).size(), 0U) << test::Describe(test::Log(2));
}

template <class Cache, class Members>
void PropertiesChanged(const std::string& interface, const Members& members)
{
    Setting setting(interface);
    const auto object = Unread<Cache>(setting, members);
    setting.object->Set(Samples(members, 1));
    AwaitSignals(*object, 1);
    ExpectAll(*object, members, 1);
}

template <class Cache, class Members>
void InterfacesAdded(const std::string& interface, const Members& members)
{
    Setting setting(interface);
    const auto object = Unread<Cache>(setting, members);
    setting.object->SetQuietly(Samples(members, 2));
    setting.object->EmitInterfacesAdded();
    AwaitSignals(*object, 1);
    ExpectAll(*object, members, 2);
}

template <class Cache, class Member>
void SetAll(Cache& object, const Member& member)
{
    using T = typename Member::Type;
    using Variant = typename Cache::Variant;
    const auto set = [&](unsigned int index, auto store)
    {
        const T value = sample::Make<T>(index, 3);
        store(value);
        ExpectValue(object, member, value, true);
    };
    set(1,
        [&](const T& value)
        {
            (object.*member.set)(value);
        });
    set(2,
        [&](const T& value)
        {
            (object.*member.setLocked)(value);
        });
    set(3,
        [&](const T& value)
        {
            (object.*member.setVariant)(Variant(value));
        });
    set(4,
        [&](const T& value)
        {
            (object.*member.setLockedVariant)(Variant(value));
        });
    set(5,
        [&](const T& value)
        {
            object.SetByName(member.name, Variant(value));
        });
    set(6,
        [&](const T& value)
        {
            object.SetByNameLocked(member.name, Variant(value));
        });
}

// A variant of another alternative than T, where there is one.
template <class T, class... A>
void RefuseOthers(auto& object, const auto& member, const std::variant<A...>&)
{
    using Variant = std::variant<A...>;
    const auto refuse = [&]<class Other>(const Other& other)
    {
        if constexpr (!std::is_same_v<T, Other>)
        {
            test::ClearLog();
            (object.*member.setVariant)(Variant(other));
            (object.*member.setLockedVariant)(Variant(other));
            object.SetByName(member.name, Variant(other));
            object.SetByNameLocked(member.name, Variant(other));
            const std::string name = member.name;
            EXPECT_EQ(Errors("Set_" + name, "invalid type in variant"), 2U);
            EXPECT_EQ(Errors("SetLocked_" + name, "invalid type in variant"), 2U);
        }
    };
    (refuse(A{}), ...);
}

template <class Cache, class Members>
void Setters(const Members& members)
{
    const test::NoBus noBus; // setters send nothing
    Cache object(path, service);
    ForEach(members,
            [&]<class Member>(const Member& member, unsigned int)
            {
                using T = typename Member::Type;
                RefuseOthers<T>(object, member, typename Cache::Variant());
                ExpectValue(object, member, T{}, false);
                SetAll(object, member);
                RefuseOthers<T>(object, member, typename Cache::Variant());
                ExpectValue(object, member, sample::Make<T>(6, 3), true);
            });
    EXPECT_FALSE(object.Ready());
    EXPECT_EQ(object.SignalCount(), 0U);
}

// --- subscribers --------------------------------------------------------------------------------

template <class Class, class Members>
void Signals(const std::string& interface, const std::string& member, const Members& arguments)
{
    Setting setting(interface);
    Class object(path);
    ExpectNothing(object, arguments);
    for (unsigned int round = 0; round < sample::rounds; ++round)
    {
        std::vector<kit::Value> values;
        for (const auto& [name, value] : Samples(arguments, round))
        {
            values.push_back(value);
        }
        setting.object->EmitValues(member, values);
        AwaitSignals(object, round + 1);
        ExpectAll(object, arguments, round);
    }
}

} // namespace every_member
