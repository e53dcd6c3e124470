// What descriptions of others have, on a bus: values of any type, descriptors and signatures, names
// that C++ does not take, a member that is left out, an enumeration, an interface below another.

#include "odd.hpp"
#include "part.hpp"

#include <bmcbus/live.hpp>
#include <bmcbus/testing.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <limits>

using bmcbus::Signature;
using bmcbus::UnixFd;
using bmcbus::Variant;
using bmcbus::testing::Call;
using bmcbus::testing::Dispatch;
using bmcbus::testing::FakeService;
using bmcbus::testing::PrivateBus;
using bmcbus::testing::Value;
using Cached = ClientCache::com::example::test::Odd_;
using Direct = ClientEdge::com::example::test::Odd_;
using Color = ClientTypes::com::example::test::Odd_::Color;
using Options = std::map<std::string, Variant>;

namespace
{

constexpr const char* service_name = "com.example.Test";
constexpr const char* path = "/com/example/test";

const Options options = {{"deep", std::vector<Variant>{1U, "x", Options{{"y", Signature("ai")}}}},
                         {"flat", std::vector<uint8_t>{1, 2}}};
constexpr const char* options_text =
    R"(a{sv} 2 "deep" av 3 u 1 s "x" a{sv} 1 "y" g "ai" "flat" ay 2 1 2)";

class Odd : public ::testing::Test
{
  protected:
    Odd() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
    ~Odd() override
    {
        close(ends[0]);
        close(ends[1]);
    }

    // Whether what is written to `fd` arrives at the pipe's other end.
    bool Leads(const UnixFd& fd)
    {
        char got = 0;
        return write(fd.get(), "x", 1) == 1 && read(ends[0], &got, 1) == 1 && got == 'x';
    }

    // Scale gives back what it gets, and one more.
    void AnswerScale()
    {
        service->OnCall("Scale",
                        [](const Call& call)
                        {
                            std::vector<Value> answer = call.arguments;
                            answer.push_back(std::map<std::string, bmcbus::testing::TypeSignature>{
                                {"k", {"v"}}});
                            return answer;
                        });
    }

    int ends[2] = {-1, -1};
    PrivateBus bus;
    FakeService service{service_name, path, {"com.example.test.Odd"}};
    Direct direct{service_name, path};
};

TEST_F(Odd, PropertiesOfAnyTypeTravel)
{
    service->Set("any", Value::Variant(std::vector<uint16_t>{7}));
    service->Set("file", Value::Descriptor(ends[1])); // no descriptor cannot travel
    Cached cached(path, service_name);
    ASSERT_TRUE(cached.Ready());
    EXPECT_EQ(cached.Get_any().Text(), "aq 1 7");
    bool ok = false;
    Variant any;
    direct.Get_any(ok, any);
    EXPECT_TRUE(ok);
    EXPECT_EQ(any, cached.Get_any());

    direct.Set_any(Variant(options));
    direct.Set_options(options);
    direct.Set_many({Variant("a"), Variant::MakeNested(2.5)});
    direct.Set_objects({{"com.example.A", options}});
    direct.Set_type(Signature("a{sv}u"));
    EXPECT_EQ(service->Get("any").Text(), std::string("v ") + options_text);
    EXPECT_EQ(service->Get("options").Text(), options_text);
    EXPECT_EQ(service->Get("many").Text(), R"(av 2 s "a" v d 2.5)");
    EXPECT_TRUE(Dispatch([&] { return cached.Get_type() == Signature("a{sv}u"); }));
    EXPECT_EQ(cached.Get_any(), Variant(options));
    EXPECT_EQ(cached.Get_options(), options);
    EXPECT_EQ(cached.Get_many().at(1), Variant::MakeNested(2.5));
    EXPECT_EQ(cached.Get_objects(), direct.Get_objects());
    EXPECT_EQ(direct.Get_objects().at("com.example.A"), options);
}

TEST_F(Odd, DescriptorsBelongToTheirHolders)
{
    service->Set("file", Value::Descriptor(ends[1]));
    UnixFd read;
    {
        Cached cached(path, service_name);
        ASSERT_TRUE(cached.Ready());
        read = cached.Get_file();
        EXPECT_TRUE(Leads(cached.Get_file()));
    }
    EXPECT_TRUE(Leads(read));
    EXPECT_TRUE(Leads(direct.Get_file()));
}

TEST_F(Odd, MethodsTakeWhatCppNamesAlike)
{
    AnswerScale();
    bool ok = false;
    Variant out;
    UnixFd file;
    std::map<std::string, Signature> types;
    direct.Call_Scale(ok, Variant(options), UnixFd(ends[1]), out, file, types);
    EXPECT_TRUE(ok);
    EXPECT_EQ(out, Variant(options));
    EXPECT_TRUE(Leads(file));
    EXPECT_EQ(types.at("k").str(), "v");
    direct.Call_Scale(ok, Variant(), UnixFd(ends[1]), out, file, types);
    EXPECT_FALSE(ok); // no value
}

TEST_F(Odd, SignalsNeedNoNames)
{
    ClientCache::Odd_::Crossed crossed(path);
    const ClientCache::Odd_::EINVAL_ unused(path);
    service->Emit("Crossed", Value::Variant(uint8_t{3}), Value::Descriptor(ends[1]),
                  bmcbus::testing::TypeSignature{"s"},
                  Value(std::map<std::string, Value>{{"a", 1.5}}));
    ASSERT_TRUE(Dispatch([&] { return crossed.Ready(); }));
    EXPECT_EQ(crossed.Get_arg1(), Variant(uint8_t{3}));
    EXPECT_TRUE(Leads(crossed.Get_arg2()));
    EXPECT_EQ(crossed.Get_max_rate().str(), "s");
    EXPECT_EQ(crossed.Get_operator().at("a"), Variant(1.5));
}

TEST_F(Odd, PropertiesKeepTheirNamesOnTheBus)
{
    Cached cached(path, service_name);
    direct.Set_with_dash("one");
    direct.Set_with_dash_("two");
    EXPECT_EQ(service->Get("with-dash").Text(), R"(s "one")");
    EXPECT_EQ(service->Get("with_dash").Text(), R"(s "two")");
    EXPECT_TRUE(Dispatch(
        [&] { return cached.Get_with_dash() == "one" && cached.Get_with_dash_() == "two"; }));
}

TEST_F(Odd, EnumerationsKeepUnknownText)
{
    Cached cached(path, service_name);
    Color color = Color::EOF_;
    EXPECT_FALSE(cached.Get_Color(color));
    direct.Set_Color(Color::default_);
    EXPECT_EQ(service->Get("Color").Text(), R"(s "com.example.test.Odd.Color.default")");
    EXPECT_TRUE(direct.Get_Color(color));
    EXPECT_EQ(color, Color::default_);
    EXPECT_TRUE(Dispatch([&] { return cached.Get_Color(color); }));
    service->Set("Color", "com.example.test.Odd.Color.Mauve");
    EXPECT_FALSE(direct.Get_Color(color));
    EXPECT_EQ(direct.Get_Color(), "com.example.test.Odd.Color.Mauve");
    EXPECT_EQ(color, Color::default_);
}

TEST_F(Odd, EnumerationsStandInSetsAndSignals)
{
    const std::vector<std::string> colors = {bmcbus::ToText(Color::Red), "Mauve"};
    direct.Set_colors(colors);
    EXPECT_EQ(direct.Get_colors(), colors);
    ClientCache::Odd_::Painted painted(path);
    service->Emit("Painted", colors.front());
    ASSERT_TRUE(Dispatch([&] { return painted.Ready(); }));
    Color color = Color::EOF_;
    EXPECT_TRUE(painted.Get_Color(color));
    EXPECT_EQ(color, Color::Red);
}

TEST_F(Odd, LiveObjectsHaveEveryType)
{
    service->Set("file", Value::Descriptor(ends[1]));
    direct.Set_any(Variant(options));
    direct.Set_type(Signature("ai"));
    bmcbus::testing::ClearLog();
    bmcbus::Live<Cached> live(nullptr, path, {.service = service_name});
    ASSERT_TRUE(Dispatch([&] { return live.State() == bmcbus::LiveState::Live; }));
    EXPECT_EQ(live->Get_any(), Variant(options));
    EXPECT_EQ(live->Get_type().str(), "ai");
    EXPECT_TRUE(Leads(live->Get_file()));
    direct.Set_objects({{"com.example.A", options}});
    direct.Set_many({Variant("a"), Variant::MakeNested(2.5)});
    direct.Set_Color(Color::default_);
    EXPECT_TRUE(Dispatch([&] { return !live->Get_Color().empty(); }));
    EXPECT_EQ(live->Get_objects(), direct.Get_objects());
    EXPECT_EQ(live->Get_many(), direct.Get_many());
    EXPECT_TRUE(bmcbus::testing::Log(2).empty()) << Describe(bmcbus::testing::Log(2));
}

TEST_F(Odd, CallsWithResultsCarryEveryType)
{
    const Cached holder(path, service_name); // keeps the thread's connection
    service->Set("file", Value::Descriptor(ends[1]));
    AnswerScale();
    EXPECT_TRUE(direct.Try_Set_any(Variant(options)));
    EXPECT_EQ(direct.Try_Get_any().value(), Variant(options));
    EXPECT_TRUE(Leads(direct.Try_Get_file().value()));
    EXPECT_TRUE(direct.Try_Set_type(Signature("ai")));
    const auto scaled = direct.Try_Scale(Variant(options), UnixFd(ends[1]));
    ASSERT_TRUE(scaled) << scaled.error().message;
    EXPECT_EQ(scaled->value, Variant(options));
    EXPECT_TRUE(Leads(scaled->new_));
    EXPECT_EQ(scaled->default_.at("k").str(), "v");
    std::string type;
    const bmcbus::Call asked =
        direct.Async_Get_type([&](bmcbus::Result<Signature> got) { type = got.value().str(); });
    EXPECT_TRUE(Dispatch([&] { return type == "ai"; }));
}

// What busctl prints of the property `any`, without the line's end.
std::string Busctl()
{
    bmcbus::testing::Process busctl({"sh", "-c",
                                     std::string("busctl get-property ") + service_name + " " +
                                         path + " com.example.test.Odd any"});
    const std::string said = busctl.Wait() == 0 ? busctl.Output() : "";
    return said.substr(0, said.find_last_not_of('\n') + 1);
}

TEST_F(Odd, TextIsWhatBusctlPrints)
{
    const auto same = [&](const Variant& value)
    {
        direct.Set_any(value);
        const std::string printed = Busctl();
        if (!printed.empty())
        {
            EXPECT_EQ("v " + value.Text(), printed);
        }
        return !printed.empty();
    };
    if (!same(Variant(true)))
    {
        GTEST_SKIP() << "no busctl";
    }
    for (const Variant& value :
         std::vector<Variant>{uint8_t{200},
                              std::numeric_limits<int16_t>::min(),
                              uint16_t{65535},
                              std::numeric_limits<int32_t>::min(),
                              4000000000U,
                              std::numeric_limits<int64_t>::min(),
                              std::numeric_limits<uint64_t>::max(),
                              0.1,
                              1e300,
                              -2.5e-9,
                              std::numeric_limits<double>::infinity(),
                              100000000.0,
                              "",
                              "plain",
                              "tab\t line\n \"quoted\" back\\slash 'single' \x01\x7f",
                              "Größe",
                              bmcbus::ObjectPath(std::string("/a/b")),
                              Signature("a{sv}"),
                              Signature(),
                              std::vector<uint8_t>{0, 255},
                              std::vector<bool>{true, false},
                              std::vector<std::string>(),
                              std::vector<std::string>{"a b", ""},
                              std::vector<double>{0.5},
                              options,
                              std::map<uint16_t, std::tuple<bool, std::string>>{{1, {true, "x"}}},
                              std::tuple<std::string, std::vector<int32_t>>{"x", {-1}},
                              Variant::MakeNested(Variant(1U)),
                              std::vector<Variant>{1U, "x"},
                              std::vector<std::map<std::string, Variant>>{{}, options}})
    {
        EXPECT_TRUE(same(value)) << value.Text();
    }
}

TEST_F(Odd, WhatIsLeftOutIsPassedOver)
{
    Cached cached(path, service_name);
    bmcbus::testing::ClearLog();
    std::map<std::string, Cached::Variant> values = {{"secret", std::string("x")},
                                                     {"with-dash", std::string("y")}};
    Cached::GetPropertiesAsyncCallback(true, values, &cached);
    EXPECT_EQ(cached.Get_with_dash(), "y");
    EXPECT_TRUE(bmcbus::testing::Log(2).empty()) << Describe(bmcbus::testing::Log(2));
    cached.SetByName("secret", values["secret"]);
    EXPECT_EQ(bmcbus::testing::CountLog(2, 127, "SetByName", "invalid property_name=[secret]"), 1U);
}

TEST(OddNames, AreConstants)
{
    namespace Types = ClientTypes::com::example::test::Odd_;
    EXPECT_STREQ(Types::Errors::TooHot, "com.example.test.Odd.Error.TooHot");
    EXPECT_STREQ(Types::Paths::odd, "/com/example/odd");
    EXPECT_EQ(bmcbus::ToText(static_cast<Color>(9)), "");
    // The interface below: its namespace is not the class any more.
    EXPECT_EQ(sizeof(ClientEdge::com::example::test::Odd::Part), sizeof(Direct));
}

} // namespace
