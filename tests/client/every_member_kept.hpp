#pragma once

// Every value that a cached proxy or a subscriber keeps, from each way in which it comes.

#include "every_member.hpp"

namespace every_member
{

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
    std::apply([&](const auto&... member) { (use(member, ++index), ...); }, members);
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
    ForEach(
        members, [&]<class Member>(const Member& member, unsigned int index)
        { ExpectValue(object, member, sample::Make<typename Member::Type>(index, round), true); });
    const auto expected = sample::Make<std::tuple<typename Members::Type...>>(1, round);
    std::tuple<typename Members::Type...> all;
    std::apply([&](auto&... value) { object.Get(value...); }, all);
    EXPECT_TRUE(all == expected);
}

template <class Class, class Members>
void ExpectNothing(Class& object, const Members& members)
{
    EXPECT_FALSE(object.Ready());
    EXPECT_EQ(object.SignalCount(), 0U);
    ForEach(members, [&]<class Member>(const Member& member, unsigned int)
            { ExpectValue(object, member, typename Member::Type{}, false); });
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
    ASSERT_TRUE(kit::Dispatch([&] { return object.SignalCount() == count; }));
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
    set(1, [&](const T& value) { (object.*member.set)(value); });
    set(2, [&](const T& value) { (object.*member.setLocked)(value); });
    set(3, [&](const T& value) { (object.*member.setVariant)(Variant(value)); });
    set(4, [&](const T& value) { (object.*member.setLockedVariant)(Variant(value)); });
    set(5, [&](const T& value) { object.SetByName(member.name, Variant(value)); });
    set(6, [&](const T& value) { object.SetByNameLocked(member.name, Variant(value)); });
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
