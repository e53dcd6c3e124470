// Values of any type, descriptors and signatures: as C++ values, and through messages that the kit
// writes and reads with code of its own.

#include <bmcbus/testing.hpp>
#include <bmcbus/variant.hpp>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <memory>
#include <set>

using bmcbus::ObjectPath;
using bmcbus::Signature;
using bmcbus::UnixFd;
using bmcbus::Variant;
using bmcbus::client::Wire;
using bmcbus::testing::MessagePtr;
using bmcbus::testing::Peers;
using bmcbus::testing::Value;

namespace
{

using Options = std::map<std::string, Variant>;

std::string Refusal(const std::function<void()>& step)
{
    try
    {
        step();
    }
    catch (const std::invalid_argument& error)
    {
        return error.what();
    }
    return "none";
}

MessagePtr NewSignal(const Peers& peers)
{
    sd_bus_message* raw = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(peers.Client(), &raw, "/", "com.example.A", "B"), 0);
    return {raw, sd_bus_message_unref};
}

void Seal(const MessagePtr& message)
{
    ASSERT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
    ASSERT_GE(sd_bus_message_rewind(message.get(), 1), 0);
}

TEST(Variant, HoldsEveryTypeAndGivesItBack)
{
    const auto holds = [](const auto& value, const char* signature, const char* text)
    {
        const Variant variant = value;
        EXPECT_EQ(variant.Signature(), signature);
        EXPECT_EQ(variant.Text(), text);
        EXPECT_EQ(variant.Get<std::remove_cvref_t<decltype(value)>>(), value);
        EXPECT_EQ(Variant(variant), variant);
    };
    holds(true, "b", "b true");
    holds(uint8_t{255}, "y", "y 255");
    holds(int16_t{-2}, "n", "n -2");
    holds(uint16_t{65535}, "q", "q 65535");
    holds(int32_t{-3}, "i", "i -3");
    holds(uint32_t{4}, "u", "u 4");
    holds(std::numeric_limits<int64_t>::min(), "x", "x -9223372036854775808");
    holds(std::numeric_limits<uint64_t>::max(), "t", "t 18446744073709551615");
    holds(-0.5, "d", "d -0.5");
    holds(std::string("a \"b\"\n\xc3\xa4 '"), "s", R"(s "a \"b\"\n\303\244 \'")");
    holds(ObjectPath("/a/b"), "o", R"(o "/a/b")");
    holds(Signature("a{sv}u"), "g", R"(g "a{sv}u")");
    holds(std::vector<uint8_t>{0, 255}, "ay", "ay 2 0 255");
    holds(std::list<int64_t>{-1}, "ax", "ax 1 -1");
    holds(std::vector<bool>{true, false}, "ab", "ab 2 true false");
    holds(std::vector<std::string>{}, "as", "as 0");
    holds(std::make_tuple(uint8_t{1}, std::string("x"), Variant(2.5)), "(ysv)",
          R"((ysv) 1 "x" d 2.5)");
    holds(std::map<uint32_t, std::vector<ObjectPath>>{{7, {ObjectPath("/")}}}, "a{uao}",
          R"(a{uao} 1 7 1 "/")");
    holds(Options{{"b", 1}, {"a", Options{{"c", "d"}}}}, "a{sv}",
          R"(a{sv} 2 "a" a{sv} 1 "c" s "d" "b" i 1)");
    holds(std::vector<Variant>{Variant::MakeNested(1U), "x"}, "av", R"(av 2 v u 1 s "x")");
    EXPECT_EQ(Variant(5LL).Signature(), "x");
    EXPECT_EQ(Variant(5ULL).Signature(), "t");
}

TEST(Variant, TellsBothTypesWhereTheyDiffer)
{
    const Variant number = 5U;
    EXPECT_EQ(Refusal([&] { number.Get<bool>(); }), R"(the value is of type "u", not "b")");
    EXPECT_EQ(Refusal([] { Variant().Get<bool>(); }), R"(the value is of type "", not "b")");
    EXPECT_EQ(Refusal([&] { number.As<std::vector<std::string>>(); }),
              R"(the value is of type "u", not "as")");
    EXPECT_FALSE(Variant().HasValue());
    EXPECT_TRUE(number.Holds<uint32_t>());
    EXPECT_FALSE(number.Holds<int32_t>());
    int32_t kept = 3;
    EXPECT_FALSE(number.Get(kept));
    EXPECT_EQ(kept, 3);
}

TEST(Variant, TakesAndFillsPropertyVariants)
{
    using Narrow = std::variant<bool, std::string, std::vector<double>>;
    const Variant variant = Narrow("x");
    EXPECT_EQ(variant.Text(), R"(s "x")");
    EXPECT_EQ(std::get<1>(variant.Get<Narrow>()), "x");
    EXPECT_FALSE(Variant(1U).Holds<Narrow>());
    EXPECT_EQ(Variant(std::map<std::string, Narrow>{{"k", true}}), Variant(Options{{"k", true}}));
}

TEST(Variant, ConvertsWhatLosesNothing)
{
    const auto becomes = [](const Variant& from, const char* type, const char* text)
    {
        SCOPED_TRACE(from.Text() + " to " + type);
        std::string result;
        try
        {
            result = from.As(type).Text();
        }
        catch (const std::invalid_argument&)
        {
            result = "refused";
        }
        EXPECT_EQ(result, text);
    };
    becomes(255U, "y", "y 255");
    becomes(256U, "y", "refused");
    becomes(-1, "u", "refused");
    becomes(-1, "x", "x -1");
    becomes(std::numeric_limits<uint64_t>::max(), "x", "refused");
    becomes(std::numeric_limits<uint64_t>::max(), "d", "refused");
    becomes(std::numeric_limits<int64_t>::min(), "d", "d -9.22337e+18");
    becomes((uint64_t{1} << 53U) + 1, "d", "refused");
    becomes(3.0, "q", "q 3");
    becomes(-0.0, "i", "refused");
    becomes(3.5, "q", "refused");
    becomes(18446744073709551616.0, "t", "refused");
    becomes(std::nan(""), "i", "refused");
    becomes(true, "y", "refused");
    becomes("/a", "o", R"(o "/a")");
    becomes("a", "o", "refused");
    becomes("a{sv}", "g", R"(g "a{sv}")");
    becomes("a{", "g", "refused");
    becomes(Variant::MakeNested(Variant::MakeNested(5U)), "t", "t 5");
    becomes(std::vector<uint8_t>{1, 2}, "ax", "ax 2 1 2");
    becomes(std::vector<int32_t>{1, -2}, "au", "refused");
    becomes(std::vector<Variant>{1, 2U}, "ad", "ad 2 1 2");
    becomes(std::vector<uint8_t>{1}, "av", "av 1 y 1");
    becomes(Options{{"/a", 1}}, "a{ot}", R"(a{ot} 1 "/a" 1)");
    becomes(std::map<std::string, int32_t>{}, "as", "refused");
    becomes(std::make_tuple(1, Variant(2)), "(yy)", "(yy) 1 2");
    becomes(std::make_tuple(1, 2), "(y)", "refused");
    becomes(std::make_tuple(1), "(yy)", "refused");
    EXPECT_EQ(Refusal([] { Variant(1).As("{sv}"); }), R"(no complete D-Bus type: "{sv}")");
}

TEST(Variant, ComparesAsValues)
{
    const double nan = std::nan("");
    EXPECT_EQ(Variant(nan), Variant(-nan));
    EXPECT_LT(Variant(std::numeric_limits<double>::infinity()), Variant(nan));
    EXPECT_EQ(Variant(0.0), Variant(-0.0));
    EXPECT_LT(Variant(-1), Variant(1));
    EXPECT_NE(Variant(1), Variant(1U));
    EXPECT_NE(Variant("/a"), Variant(ObjectPath("/a")));
    EXPECT_LT(Variant(std::vector<int16_t>{-1}), Variant(std::vector<int16_t>{-1, 0}));
    EXPECT_NE(Variant(std::vector<std::string>{}), Variant(std::vector<ObjectPath>{}));
    EXPECT_EQ(std::set<Variant>({3U, 1U, "b", 3U, "a", Variant()}).size(), 5U);
}

// Both ways of making one put entries in order, and the first of two equal keys stays.
TEST(Variant, DictionariesAreOrdered)
{
    const Variant made = Variant::MakeDictionary("s", "v", {{"b", 1}, {"a", 2}, {"b", 3}});
    EXPECT_EQ(made, Variant(Options{{"a", 2}, {"b", 1}}));
    made.Visit(
        [](const auto& value)
        {
            if constexpr (std::same_as<decltype(value), const Variant::Dictionary&>)
            {
                ASSERT_NE(value.Find("b"), nullptr);
                EXPECT_EQ(*value.Find("b"), Variant(1));
                EXPECT_EQ(value.Find("c"), nullptr);
                EXPECT_EQ(value.Find(1), nullptr);
                return;
            }
            FAIL() << "not a dictionary";
        });
}

TEST(Variant, RefusesWhatIsNoValue)
{
    EXPECT_EQ(Refusal([] { Variant(std::vector<Variant>{Variant()}); }),
              "an element of a container has no value");
    EXPECT_EQ(Refusal(
                  [] {
                      Variant::MakeArray("s", {"a", 1});
                  }),
              R"(a value of type "i" stands where "s" belongs)");
    EXPECT_EQ(Refusal([] { Variant::MakeArray("ss", {}); }), R"(no complete D-Bus type: "ass")");
    EXPECT_EQ(Refusal([] { Variant::MakeDictionary("v", "s", {}); }),
              R"(no complete D-Bus type: "a{vs}")");
    EXPECT_EQ(Refusal([] { Variant::MakeStruct({}); }), R"-(no complete D-Bus type: "()")-");
    EXPECT_EQ(Variant::MakeStruct({1, "x"}), Variant(std::make_tuple(1, std::string("x"))));
    // A `v` counts beside the array that it stands in.
    const auto nest = [](int levels)
    {
        for (Variant list = 1; levels > 0; --levels)
        {
            list = Variant::MakeArray("v", {list});
        }
    };
    EXPECT_EQ(Refusal([&] { nest(32); }), "none");
    EXPECT_EQ(Refusal([&] { nest(33); }), "containers are nested more than 64 deep");
    Variant deep = 1;
    EXPECT_EQ(Refusal(
                  [&]
                  {
                      for (int i = 0; i < 64; ++i)
                      {
                          deep = Variant::MakeNested(deep);
                      }
                  }),
              "none");
    EXPECT_EQ(Refusal([&] { Variant::MakeNested(deep); }),
              "containers are nested more than 64 deep");
}

// Self-assignment from inside, and the states that moving leaves.
TEST(Variant, AssignsFromItsOwnInside)
{
    Variant value = std::vector<Variant>{std::vector<Variant>{"inner text of some length", 1}};
    value.Visit(
        [&](const auto& content)
        {
            if constexpr (std::same_as<decltype(content), const Variant::Array&>)
            {
                value = content[0];
            }
        });
    EXPECT_EQ(value.Text(), R"(av 2 s "inner text of some length" i 1)");
    Variant taken = std::move(value);
    EXPECT_FALSE(value.HasValue()); // NOLINT(bugprone-use-after-move)
    value = taken;
    EXPECT_EQ(value, taken);
}

TEST(Variant, TravelsAsTheKitWritesAndReadsIt)
{
    const Peers peers;
    const std::vector<Value> bodies = {
        true,
        uint8_t{1},
        int16_t{-1},
        1.5,
        "text",
        bmcbus::testing::Path{"/p"},
        bmcbus::testing::TypeSignature{"(ii)a{sv}"},
        std::vector<uint16_t>{1, 2},
        std::vector<bool>{true},
        std::vector<std::vector<std::string>>{{"a"}, {}},
        std::map<std::string, std::tuple<uint8_t, Value>>{{"k", {1, "x"}}},
        Value::Variant(Value::Variant(std::vector<Value>{"a", 1U})),
        std::vector<std::map<std::string, Value>>{{{"k", std::vector<double>{0.5}}}, {}},
    };
    for (const Value& body : bodies)
    {
        SCOPED_TRACE(body.Text());
        const MessagePtr message = peers.Message({Value::Variant(body)});
        Variant read;
        ASSERT_TRUE(Wire<Variant>::Read(message.get(), read));
        EXPECT_FALSE(Wire<Variant>::Read(message.get(), read));
        EXPECT_EQ(read.Text(), body.Text());
        const MessagePtr written = NewSignal(peers);
        Wire<Variant>::Append(written.get(), read);
        Seal(written);
        EXPECT_EQ(Value::Read(written.get()), Value::Variant(body));
    }
}

TEST(Variant, AppendsNothingThatMayNotTravel)
{
    const Peers peers;
    for (const Variant& bad : {Variant(), Variant("\xff"), Variant(ObjectPath("none")),
                               Variant(UnixFd()), Variant(Options{{std::string("a\0b", 3), 1}})})
    {
        const MessagePtr message = NewSignal(peers);
        EXPECT_THROW(Wire<Variant>::Append(message.get(), bad), bmcbus::Error);
    }
}

class Pipe : public ::testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(pipe2(ends, 0), 0); }
    void TearDown() override
    {
        close(ends[0]);
        close(ends[1]);
    }
    static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

    int ends[2] = {-1, -1};
};

TEST_F(Pipe, DescriptorIsDuplicatedSharedAndClosedOnce)
{
    UnixFd fd(ends[0]);
    EXPECT_NE(fd.get(), ends[0]);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    const int number = fd.get();
    UnixFd copy = fd;
    EXPECT_EQ(copy, fd);
    const Variant holder = fd;
    fd = UnixFd();
    EXPECT_FALSE(fd);
    copy = {};
    EXPECT_TRUE(IsOpen(number)); // the Variant's
    EXPECT_EQ(holder.Get<UnixFd>().get(), number);
    const int own = holder.Get<UnixFd>().Duplicate();
    EXPECT_TRUE(IsOpen(own));
    UnixFd adopted = UnixFd::Adopt(own);
    EXPECT_EQ(adopted.get(), own);
    adopted = UnixFd::Adopt(-1);
    EXPECT_FALSE(IsOpen(own));
    EXPECT_THROW(UnixFd(-1), std::system_error);
}

TEST_F(Pipe, DescriptorOutlivesItsMessage)
{
    const Peers peers;
    UnixFd fd;
    {
        const MessagePtr message = peers.Message({Value::Descriptor(ends[1])});
        ASSERT_TRUE(Wire<UnixFd>::Read(message.get(), fd));
    }
    EXPECT_EQ(write(fd.get(), "x", 1), 1);
    char got = 0;
    EXPECT_EQ(read(ends[0], &got, 1), 1);
    const MessagePtr written = NewSignal(peers);
    Wire<Variant>::Append(written.get(), fd);
    Seal(written);
    Variant back;
    ASSERT_TRUE(Wire<Variant>::Read(written.get(), back));
    EXPECT_EQ(write(back.Get<UnixFd>().get(), "y", 1), 1);
    EXPECT_EQ(read(ends[0], &got, 1), 1);
    EXPECT_EQ(got, 'y');
}

TEST(Signature, IsCheckedText)
{
    const std::string structs(32, '(');
    const std::string closed(32, ')');
    for (const std::string& good :
         {std::string(), std::string("a{s(ai)}v"), std::string(32, 'a') + "y",
          structs + std::string(32, 'a') + "y" + closed, std::string(255, 'y')})
    {
        EXPECT_EQ(Signature(good).str(), good);
    }
    for (const std::string& bad :
         {std::string("a"), std::string("()"), std::string("{sv}"), std::string("a{vs}"),
          std::string("a{s}"), std::string("a{ssv}"), std::string("(i"), std::string("i)"),
          std::string("r"), std::string("y\0y", 3), std::string(33, 'a') + "y",
          "(" + structs + "y)" + closed, std::string(256, 'y')})
    {
        EXPECT_THROW(Signature{bad}, std::invalid_argument) << bad;
    }
}

} // namespace
