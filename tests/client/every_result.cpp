// Every operation with a result of every class: what it sends, and that each form gives the value
// or the error in each kind of loop.

#include "every_result.hpp"

#include "bus_loops.hpp"
#include "samples.hpp"

namespace
{

using namespace every_member;

class Results : public testing::TestWithParam<const DirectClass*>
{
  protected:
    // What each form gives, after `arrange`.
    void ExpectAll(const Operation& operation, const std::function<void()>& arrange,
                   const std::function<void(const Outcome&)>& check)
    {
        SCOPED_TRACE(std::string(operation.member) + " " +
                     (operation.property != nullptr ? operation.property : ""));
        arrange();
        check(operation.Try(proxy.get(), in));
        test::InEveryLoop(setting.own,
                          [&](const test::RunLoop& run)
                          {
                              arrange();
                              std::optional<Outcome> told;
                              const bmcbus::Call call = operation.Start(
                                  proxy.get(), in, [&](const Outcome& given) { told = given; });
                              ASSERT_TRUE(run([&] { return told.has_value(); }));
                              check(*told);
                              arrange();
                              const bmcbus::Task<> task = operation.Wait(proxy.get(), in, told);
                              ASSERT_TRUE(run([&] { return task.Done(); }));
                              check(*told);
                          });
    }
    // Has the service give these, in whatever way the operation gets at them.
    void Offer(const Operation& operation, const Values& right)
    {
        const std::string member = operation.member;
        if (member == "GetAll")
        {
            for (size_t index = 0; const auto& each : about.properties)
            {
                setting.object->SetQuietly({{each->name, right.at(index++)}});
            }
        }
        else if (member == "Get")
        {
            setting.object->SetQuietly({{operation.property, right.at(0)}});
        }
        else if (member != "Set")
        {
            setting.object->OnCall(member, [right](const kit::Call&) { return right; });
        }
    }
    // Each call that came, as it must have been.
    void ExpectSent(const Operation& operation)
    {
        const bool isMethod =
            operation.property == nullptr && operation.member != std::string("GetAll");
        Values sent = isMethod ? in : Values{about.interface};
        if (operation.property != nullptr)
        {
            sent.emplace_back(operation.property);
        }
        if (operation.member == std::string("Set"))
        {
            sent.push_back(kit::Value::Variant(in.at(0)));
            EXPECT_EQ(setting.object->Get(operation.property), in.at(0));
        }
        const std::vector<kit::Call> calls = setting.object.Calls(operation.member);
        EXPECT_EQ(calls.size(), 11U); // one, and two for each kind of loop
        for (const kit::Call& call : calls)
        {
            EXPECT_EQ(call.arguments, sent);
            EXPECT_EQ(call.interface,
                      isMethod ? about.interface : "org.freedesktop.DBus.Properties");
        }
    }

    const DirectClass& about = *GetParam();
    Setting setting{about.interface};
    std::shared_ptr<void> proxy = about.make();
    Values in;
};

TEST_P(Results, AreTheValue)
{
    for (unsigned int index = 1; const auto& operation : about.operations)
    {
        in = Samples(operation->ins, index++);
        const Values right = Samples(operation->outs, index + 40);
        Offer(*operation, right);
        setting.object.ClearCalls();
        ExpectAll(
            *operation, [] {},
            [&](const Outcome& outcome)
            {
                ASSERT_TRUE(outcome) << outcome.error().name << ": " << outcome.error().message;
                EXPECT_EQ(*outcome, right);
            });
        ExpectSent(*operation);
    }
    EXPECT_EQ(test::Log(2).size(), 0U) << test::Describe(test::Log(2));
}

TEST_P(Results, AreTheError)
{
    for (const auto& operation : about.operations)
    {
        in = Samples(operation->ins, 1);
        const auto fails = [&](bmcbus::CallFailure kind, const std::string& name)
        {
            return [kind, name](const Outcome& outcome)
            {
                ASSERT_FALSE(outcome);
                EXPECT_EQ(outcome.error().kind, kind);
                EXPECT_EQ(outcome.error().name, name);
            };
        };
        const auto rule = [&] { return setting.object.On(operation->member).Once(); };
        ExpectAll(
            *operation, [&] { rule().ReplyError(broken, "so there"); },
            fails(bmcbus::CallFailure::Remote, broken));
        if (!operation->outs.empty())
        {
            ExpectAll(
                *operation, [&] { rule().Reply({kit::Value::Variant(int64_t{-5})}); },
                fails(bmcbus::CallFailure::ReplyTypes, bmcbus::error_name::replyTypes));
        }
    }
    EXPECT_EQ(test::Log(2).size(), 0U) << test::Describe(test::Log(2));
}

INSTANTIATE_TEST_SUITE_P(Catalogue, Results,
                         testing::ValuesIn(
                             []
                             {
                                 std::vector<const DirectClass*> all;
                                 for (const DirectClass& each : DirectClasses())
                                 {
                                     all.push_back(&each);
                                 }
                                 return all;
                             }()),
                         [](const auto& each) { return std::string(each.param->name); });

} // namespace
