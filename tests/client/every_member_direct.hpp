#pragma once

// Every accessor and method of a direct proxy.

#include "every_member.hpp"

namespace every_member
{

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
        object->OnCall(name, [&](const kit::Call&) { return reply; });
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
    requires requires { typename Class::Variant; }
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
        return std::apply([](const auto&... value)
                          { return std::vector<kit::Value>{kit::Value(value)...}; },
                          values);
    }

    template <class Method, class... I, class... O>
    bool Invoke(Method method, const std::tuple<I...>& in, std::tuple<O...>& out)
    {
        test::ClearLog();
        bool ok = !flag_;
        flag_ = ok;
        std::apply([&](const I&... i)
                   { std::apply([&](O&... o) { (proxy.*method)(ok, i..., o...); }, out); },
                   in);
        return ok;
    }

    std::string interface;
    Edge proxy;
    bool flag_ = false;
};

} // namespace every_member
