// Every generated member of every class, over the wire: the tables say what there is, the rest is
// the same for all.

#include "every_member.hpp"
#include "no_bus.hpp"
#include "samples.hpp"

namespace
{

using namespace every_member;

// How many lines of an error's level were written by `function` with `text`.
size_t Errors(const std::string& function, const std::string& text)
{
    return test::CountLog(2, 127, function, text);
}

void ExpectErrors(size_t number)
{
    EXPECT_EQ(test::Log(2).size(), number) << test::Describe(test::Log(2));
}

class Kept : public testing::TestWithParam<const KeptClass*>
{
  protected:
    const KeptClass& about = *GetParam();
    const Members& members = about.members;
    std::shared_ptr<void> object;

    void ExpectValue(const Member& member, const kit::Value& value, bool set)
    {
        for (unsigned int way = 0; way < 3; ++way)
        {
            bool flag = way == 2 ? !set : set;
            EXPECT_EQ(member.Get(object.get(), way, Sample(member.signature, 201), flag), value)
                << member.name << " " << way;
            EXPECT_EQ(flag, set) << member.name;
        }
    }
    void ExpectAll(unsigned int round)
    {
        Values all;
        for (unsigned int index = 1; const auto& member : members)
        {
            all.push_back(Sample(member->signature, index++, round));
            ExpectValue(*member, all.back(), true);
        }
        EXPECT_EQ(about.getAll(object.get()), all);
    }
    void ExpectNothing()
    {
        EXPECT_FALSE(about.ready(object.get()));
        EXPECT_EQ(about.signalCount(object.get()), 0U);
        for (const auto& member : members)
        {
            ExpectValue(*member, kit::Value::Default(member->signature), false);
        }
        test::ClearLog();
    }
    void AwaitSignals(uint32_t count)
    {
        ASSERT_TRUE(kit::Dispatch([&] { return about.signalCount(object.get()) == count; }));
        EXPECT_TRUE(about.ready(object.get()));
        ExpectErrors(0);
    }
    void RefuseOtherTypes(const Member& member)
    {
        test::ClearLog();
        size_t others = 0;
        for (const std::string& type : about.alternatives)
        {
            for (unsigned int way = 2; type != member.signature && way < 6; ++way)
            {
                member.Set(object.get(), way, kit::Value::Default(type));
                ++others;
            }
        }
        const std::string name = member.name;
        EXPECT_EQ(Errors("Set_" + name, "invalid type in variant"), others / 2) << name;
        EXPECT_EQ(Errors("SetLocked_" + name, "invalid type in variant"), others / 2) << name;
        ExpectErrors(others);
    }
};

class Cached : public Kept
{
};

TEST_P(Cached, FirstRead)
{
    Setting setting(about.interface);
    setting.object->SetQuietly(Samples(members, 0));
    object = about.make();
    EXPECT_TRUE(about.ready(object.get()));
    EXPECT_EQ(about.signalCount(object.get()), 0U);
    ExpectErrors(0);
    ExpectAll(0);
    const auto calls = setting.object.Calls("GetAll");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].Arguments(), std::string("s \"") + about.interface + "\"");
    object.reset();
}

TEST_P(Cached, Signals)
{
    Setting setting(about.interface);
    setting.object.On("GetAll").ReplyError(broken);
    object = about.make();
    ExpectNothing();
    for (unsigned int round = 1; round <= rounds; round += 2)
    {
        setting.object->Set(Samples(members, round));
        AwaitSignals(round);
        ExpectAll(round);
        setting.object->SetQuietly(Samples(members, round + 1));
        setting.object->EmitInterfacesAdded();
        AwaitSignals(round + 1);
        ExpectAll(round + 1);
    }
    object.reset();
}

TEST_P(Cached, Setters)
{
    const test::NoBus noBus; // setters send nothing
    object = about.make();
    for (const auto& member : members)
    {
        RefuseOtherTypes(*member);
        ExpectValue(*member, kit::Value::Default(member->signature), false);
        for (unsigned int way = 0; way < 6; ++way)
        {
            const kit::Value value = Sample(member->signature, way + 1, 3);
            member->Set(object.get(), way, value);
            ExpectValue(*member, value, true);
        }
        RefuseOtherTypes(*member);
        ExpectValue(*member, Sample(member->signature, 6, 3), true);
    }
    EXPECT_FALSE(about.ready(object.get()));
    EXPECT_EQ(about.signalCount(object.get()), 0U);
}

class Subscriber : public Kept
{
};

TEST_P(Subscriber, Signals)
{
    Setting setting(about.interface);
    object = about.make();
    ExpectNothing();
    for (unsigned int round = 0; round < rounds; ++round)
    {
        Values values;
        for (const auto& named : Samples(members, round))
        {
            values.push_back(named.second);
        }
        setting.object->EmitValues(about.signal, values);
        AwaitSignals(round + 1);
        ExpectAll(round);
    }
    object.reset();
}

class Direct : public testing::TestWithParam<const DirectClass*>
{
  protected:
    static constexpr unsigned int ways = 9;
    static bool Typed(unsigned int way) { return way < 3; }
    static bool HasFlag(unsigned int way) { return way >= 2 && way <= 4; }

    // What a getter gives, whose flag must tell of success if it has one.
    kit::Value Get(const Member& member, unsigned int way, const kit::Value& before, bool success)
    {
        bool flag = !success;
        kit::Value value = member.Get(proxy.get(), way, before, flag);
        EXPECT_EQ(flag, HasFlag(way) ? success : !success) << member.name << " " << way;
        return value;
    }
    void ExpectWritten(const Member& member, const kit::Value& kept, const kit::Value& sent)
    {
        EXPECT_EQ(setting.object->Get(member.name), kept);
        const std::vector<kit::Call> calls = setting.object.Calls("Set");
        setting.object.ClearCalls();
        ASSERT_EQ(calls.size(), 1U);
        const Values expected = {about.interface, member.name, kit::Value::Variant(sent)};
        EXPECT_EQ(calls[0].arguments, expected);
    }
    // Calls a method that must succeed or fail; what the results are then.
    Values Call(const Method& method, bool success)
    {
        test::ClearLog();
        bool ok = !success;
        Values out = untouched;
        method.call(proxy.get(), ok, in, out);
        EXPECT_EQ(ok, success) << method.name;
        return out;
    }

    const DirectClass& about = *GetParam();
    Setting setting{about.interface};
    std::shared_ptr<void> proxy = about.make();
    Values in;
    Values untouched; // the results before a call
};

TEST_P(Direct, Reads)
{
    for (unsigned int index = 1; const auto& member : about.properties)
    {
        const kit::Value right = Sample(member->signature, index++);
        const kit::Value before = Sample(member->signature, 99);
        setting.object->SetQuietly({{member->name, right}});
        for (unsigned int way = 0; way < ways; ++way)
        {
            EXPECT_EQ(Get(*member, way, before, true), right) << member->name << " " << way;
        }
        const auto calls = setting.object.Calls("Get");
        setting.object.ClearCalls();
        EXPECT_EQ(calls.size(), ways);
        for (const kit::Call& call : calls)
        {
            const Values expected = {about.interface, member->name};
            EXPECT_EQ(call.arguments, expected);
        }
        ExpectErrors(0);
    }
}

TEST_P(Direct, ReadsAnError)
{
    setting.object.On("Get").ReplyError(broken, "so there");
    for (const auto& member : about.properties)
    {
        const kit::Value none = kit::Value::Default(member->signature);
        const kit::Value before = Sample(member->signature, 99);
        test::ClearLog();
        for (unsigned int way = 0; way < ways; ++way)
        {
            EXPECT_EQ(Get(*member, way, before, false), way == 0 ? none : before) << way;
        }
        EXPECT_EQ(Errors(std::string("GetLocked_") + member->name, brokenLine), ways);
        ExpectErrors(ways);
    }
}

// A type that no alternative has reads as the first one.
TEST_P(Direct, ReadsAWrongType)
{
    setting.object.On("Get").Reply({kit::Value::Variant(int64_t{-5})});
    for (const auto& member : about.properties)
    {
        const kit::Value first = kit::Value::Default(about.alternatives.at(0));
        const bool isFirst = first.Signature() == member->signature;
        const kit::Value none = kit::Value::Default(member->signature);
        const kit::Value before = Sample(member->signature, 99);
        test::ClearLog();
        for (unsigned int way = 0; way < ways; ++way)
        {
            EXPECT_EQ(Get(*member, way, before, isFirst || !Typed(way)), !Typed(way) ? first
                                                                         : way == 0 || isFirst
                                                                             ? none
                                                                             : before)
                << member->name << " " << way;
        }
        const size_t lines = isFirst ? 0 : 3;
        EXPECT_EQ(Errors(std::string("Get_") + member->name, "invalid type in variant"), lines);
        ExpectErrors(lines);
    }
}

TEST_P(Direct, Writes)
{
    for (const auto& member : about.properties)
    {
        for (unsigned int way = 0; member->writable && way < 6; ++way)
        {
            const kit::Value value = Sample(member->signature, 11 + way);
            member->Set(proxy.get(), way, value);
            ExpectWritten(*member, value, value);
        }
        for (unsigned int way = 4; !member->writable && about.writable && way < 6; ++way)
        {
            const std::string function = way == 4 ? "SetByName" : "SetByNameLocked";
            member->Set(proxy.get(), way, Sample(member->signature, 18));
            EXPECT_EQ(Errors(function, std::string("invalid property_name=[") + member->name + "]"),
                      1U);
            EXPECT_TRUE(setting.object.Calls("Set").empty());
        }
        if (member->writable)
        {
            const kit::Value kept = Sample(member->signature, 16);
            const kit::Value refused = Sample(member->signature, 17);
            setting.object.On("Set").Once().ReplyError(broken, "so there");
            test::ClearLog();
            member->Set(proxy.get(), 0, refused);
            EXPECT_EQ(Errors(std::string("SetLocked_") + member->name, brokenLine), 1U)
                << test::Describe(test::Log());
            ExpectWritten(*member, kept, refused);
        }
    }
}

TEST_P(Direct, Calls)
{
    for (const Method& method : about.methods)
    {
        const std::string name = method.name;
        in = Samples(method.ins, 20);
        untouched = Samples(method.outs, 80);
        const Values right = Samples(method.outs, 40);
        Values reply = right;
        setting.object->OnCall(name, [&](const kit::Call&) { return reply; });
        EXPECT_EQ(Call(method, true), right);
        const kit::Call call = setting.object.Calls(name).at(0);
        EXPECT_EQ(call.interface, about.interface);
        EXPECT_EQ(call.arguments, in);

        // What was read untouched the failure stays, the rest is left alone.
        reply.back() = kit::Value::Variant(int64_t{1});
        setting.object.On(name).Once().Reply(reply);
        Values partly = right;
        partly.back() = untouched.back();
        EXPECT_EQ(Call(method, false), partly);
        ExpectErrors(1);

        setting.object.On(name).ReplyError(broken, "so there");
        EXPECT_EQ(Call(method, false), untouched);
        EXPECT_EQ(Errors("Call_" + name, brokenLine), 1U);
        setting.object.On(name).Reply({});
        EXPECT_EQ(Call(method, false), untouched);
    }
}

template <class Class>
std::vector<const Class*> Chosen(const std::vector<Class>& all, auto choose)
{
    std::vector<const Class*> chosen;
    for (const Class& each : all)
    {
        if (choose(each))
        {
            chosen.push_back(&each);
        }
    }
    return chosen;
}

const auto byName = [](const auto& info) { return std::string(info.param->name); };

INSTANTIATE_TEST_SUITE_P(Catalogue, Cached,
                         testing::ValuesIn(Chosen(KeptClasses(), [](const KeptClass& each)
                                                  { return each.signal == nullptr; })),
                         byName);
INSTANTIATE_TEST_SUITE_P(Catalogue, Subscriber,
                         testing::ValuesIn(Chosen(KeptClasses(), [](const KeptClass& each)
                                                  { return each.signal != nullptr; })),
                         byName);
INSTANTIATE_TEST_SUITE_P(Catalogue, Direct,
                         testing::ValuesIn(Chosen(DirectClasses(),
                                                  [](const DirectClass&) { return true; })),
                         byName);

} // namespace
