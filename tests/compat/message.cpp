// Values into messages and out of them.

#include <bmcbus/sdbusplus.hpp>
#include <bmcbus/testing/peers.hpp>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <variant>
#include <vector>

namespace
{

using bmcbus::Error;
using bmcbus::Message;
using bmcbus::ObjectPath;

using Strings = std::vector<std::string>;
using Value = std::variant<std::int32_t, std::string, Strings>;
using Properties = std::map<std::string, Value>;

// What the strictest generation refuses the stand-in refuses, too: code that compiles with it
// compiles with all of them.
template <typename M>
concept GivesPointerOfConst = requires(const M& m)
{
    m.get();
};

static_assert(!GivesPointerOfConst<Message>);
static_assert(!std::is_convertible_v<sd_bus_message*, Message>);
static_assert(!std::is_convertible_v<Message, bool>);
static_assert(!std::is_convertible_v<const char*, ObjectPath>);
static_assert(std::is_constructible_v<ObjectPath, const char*>);
static_assert(std::is_convertible_v<std::string, ObjectPath>);
static_assert(std::is_convertible_v<const ObjectPath&, std::string>);
static_assert(!std::is_convertible_v<sd_bus*, bmcbus::Bus>);
static_assert(!std::is_copy_constructible_v<Error> && !std::is_copy_assignable_v<Error>);

// Messages are sealed and read back here; nothing is sent.
class MessageTest : public testing::Test
{
  protected:
    Message New()
    {
        sd_bus_message* raw = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(peers.Client(), &raw, "/path", "com.example.Interface",
                                            "Member"),
                  0);
        return Message(raw, std::false_type());
    }

    static void Seal(Message& m)
    {
        ASSERT_GE(sd_bus_message_seal(m.get(), 1, 0), 0);
        ASSERT_GE(sd_bus_message_rewind(m.get(), 1), 0);
    }

    template <typename... T>
    Message Sealed(const T&... values)
    {
        Message m = New();
        m.append(values...);
        Seal(m);
        return m;
    }

    // From values in the form of sd_bus_message_append().
    template <typename... T>
    Message Raw(const char* types, T... values)
    {
        Message m = New();
        EXPECT_GE(sd_bus_message_append(m.get(), types, values...), 0);
        Seal(m);
        return m;
    }

    template <typename T>
    void ComesBack(const T& value, const char* signature)
    {
        Message m = Sealed(value);
        EXPECT_STREQ(m.get_signature(), signature);
        T back{};
        m.read(back);
        EXPECT_EQ(back, value) << signature;
        EXPECT_EQ(sd_bus_message_at_end(m.get(), 1), 1) << signature;
    }

    bmcbus::testing::Peers peers;
};

template <typename... T>
std::string Failure(Message& m, T&&... values)
{
    try
    {
        m.read(values...);
    }
    catch (const Error& e)
    {
        return e.what();
    }
    return "none";
}

TEST_F(MessageTest, EveryTypeComesBack)
{
    ComesBack(true, "b");
    ComesBack(std::uint8_t{0xff}, "y");
    ComesBack(std::int16_t{-0x8000}, "n");
    ComesBack(std::uint16_t{0xffff}, "q");
    ComesBack(std::int32_t{-5}, "i");
    ComesBack(std::uint32_t{0xfffffffeU}, "u");
    ComesBack(std::int64_t{-0x100000000}, "x");
    ComesBack(std::uint64_t{0xfffffffffffffffeU}, "t");
    ComesBack(-0.5, "d");
    ComesBack(std::string("text with ä and ' inside"), "s");
    ComesBack(ObjectPath("/a/b"), "o");

    ComesBack(std::vector<std::uint8_t>{1, 2, 3}, "ay");
    ComesBack(std::vector<std::uint32_t>{}, "au");
    ComesBack(std::vector<double>{0.25, -1.5}, "ad");
    ComesBack(Strings{"a", "", "c"}, "as");
    ComesBack(std::list<std::string>{"a", "b"}, "as");
    ComesBack(std::list<std::uint32_t>{7, 6}, "au");
    ComesBack(std::set<std::string>{"a", "b"}, "as");
    ComesBack(std::vector<std::vector<std::uint8_t>>{{1}, {}, {2, 3}}, "aay");

    ComesBack(std::tuple(std::uint8_t{1}, std::string("b"), 0.5), "(ysd)");
    ComesBack(std::vector<std::tuple<std::string, std::uint32_t>>{{"a", 1}, {"b", 2}}, "a(su)");
    ComesBack(std::map<std::string, std::tuple<std::uint8_t, bool>>{{"k", {1, true}}}, "a{s(yb)}");
    ComesBack(std::unordered_map<std::uint16_t, Strings>{{1, {"x"}}, {2, {}}}, "a{qas}");
    ComesBack(Value(std::int32_t{4}), "v");
    ComesBack(Properties{{"a", 1}, {"b", "text"}, {"c", Strings{"x", "y"}}}, "a{sv}");
    ComesBack(std::map<std::string, Properties>{{"i", {{"a", 1}}}, {"j", {}}}, "a{sa{sv}}");
    ComesBack(std::vector<Value>{1, "s"}, "av");
    ComesBack(std::tuple(std::vector<std::tuple<std::uint8_t, Value>>{{2, "x"}}), "(a(yv))");
}

TEST_F(MessageTest, WritesWhatTheProtocolSays)
{
    const char* const literal = "pointer";
    Message m = Sealed(literal, "literal", std::array<std::uint16_t, 2>{5, 6}, true,
                       std::vector<Value>{Strings{"in"}});
    EXPECT_STREQ(m.get_signature(), "ssaqbav");
    const char* first = nullptr;
    const char* second = nullptr;
    std::uint16_t numbers[2] = {};
    int truth = 0;
    const char* inside = nullptr;
    EXPECT_GT(sd_bus_message_read(m.get(), "ssaqbav", &first, &second, 2, &numbers[0], &numbers[1],
                                  &truth, 1, "as", 1, &inside),
              0);
    EXPECT_STREQ(first, "pointer");
    EXPECT_STREQ(second, "literal");
    EXPECT_EQ(numbers[1], 6);
    EXPECT_EQ(truth, 1);
    EXPECT_STREQ(inside, "in");
}

TEST_F(MessageTest, KeepsWhatContainersHold)
{
    Message m = Raw("asaua{si}", 2, "c", "d", 1, 9, 3, "old", 2, "twice", 3, "twice", 4);
    Strings strings{"a"};
    std::vector<std::uint32_t> numbers{8};
    std::map<std::string, std::int32_t> map{{"old", 1}};
    m.read(strings, numbers, map);
    EXPECT_EQ(strings, (Strings{"a", "c", "d"}));
    EXPECT_EQ(numbers, (std::vector<std::uint32_t>{8, 9}));
    EXPECT_EQ(map, (std::map<std::string, std::int32_t>{{"old", 1}, {"twice", 3}}));
}

TEST_F(MessageTest, VariantTakesTheFirstAlternativeOfThatSignature)
{
    using Same = std::variant<bool, std::list<std::string>, Strings>;
    Message m = Raw("vv", "as", 1, "x", "b", 1);
    Same value;
    m.read(value);
    EXPECT_EQ(value.index(), 1U);
    m.read(value);
    EXPECT_EQ(value, Same(true));
}

TEST_F(MessageTest, VariantWithoutAnAlternativeIsSkippedWhole)
{
    Message m = Raw("vs", "a{s(ud)}", 1, "key", 1, 2.0, "next");
    Value value("before");
    std::string next;
    m.read(value, next);
    EXPECT_EQ(value, Value(std::int32_t{0}));
    EXPECT_EQ(next, "next");

    m = Raw("a{sv}a{sa{sv}}av", 2, "a", "d", 0.5, "b", "i", 7, 1, "interface", 1, "p", "as", 1, "x",
            2, "v", "t", std::uint64_t{1}, "s", "last");
    Properties properties;
    std::map<std::string, Properties> all;
    std::vector<Value> values;
    m.read(properties, all, values);
    EXPECT_EQ(properties, (Properties{{"a", 0}, {"b", 7}}));
    EXPECT_EQ(all["interface"]["p"], Value(Strings{"x"}));
    EXPECT_EQ(values, (std::vector<Value>{0, "last"}));
}

TEST_F(MessageTest, MissingVariantIsTheFirstAlternative)
{
    Message m = Raw("s", "only");
    std::string text;
    Value value("before");
    m.read(text, value);
    EXPECT_EQ(value, Value(std::int32_t{0}));
}

TEST_F(MessageTest, FailuresNameTheStep)
{
    const std::string no = ": System.Error.ENXIO: No such device or address";
    const std::string number = "sd_bus_message_read_basic fundamental" + no;
    const std::string text = "sd_bus_message_read_basic string" + no;
    const std::string sequence = "sd_bus_message_enter_container emplace_back_container" + no;
    const std::string keyed = "sd_bus_message_enter_container emplace_container" + no;
    const std::string structure = "sd_bus_message_enter_container tuple" + no;
    const auto fails = [](const Message& m)
    {
        return [m](auto value)
        {
            Message copy(m);
            sd_bus_message_rewind(copy.get(), 1);
            return Failure(copy, value);
        };
    };
    const auto all = [&](const auto& failure)
    {
        EXPECT_EQ(failure(bool{}), "sd_bus_message_read_basic bool" + no);
        EXPECT_EQ(failure(std::uint8_t{}), number);
        EXPECT_EQ(failure(std::uint16_t{}), number);
        EXPECT_EQ(failure(std::int64_t{}), number);
        EXPECT_EQ(failure(double{}), number);
        EXPECT_EQ(failure(std::string{}), text);
        EXPECT_EQ(failure(ObjectPath{}), text);
        EXPECT_EQ(failure(Strings{}), sequence);
        EXPECT_EQ(failure(std::list<std::string>{}), sequence);
        EXPECT_EQ(failure(std::vector<std::tuple<std::string>>{}), sequence);
        EXPECT_EQ(failure(std::set<std::string>{}), keyed);
        EXPECT_EQ(failure(Properties{}), keyed);
        EXPECT_EQ(failure(std::unordered_map<std::string, std::string>{}), keyed);
        EXPECT_EQ(failure(std::tuple<std::string, bool>{}), structure);
    };
    all(fails(Raw("i", 1)));
    all(fails(Raw("")));
    EXPECT_EQ(fails(Raw("i", 1))(Value{}), "sd_bus_message_skip variant" + no);
    // A field of its own type fails as it would alone.
    EXPECT_EQ(fails(Raw("(is)", 1, "x"))(std::tuple<std::int32_t, Value>{}), structure);
}

TEST_F(MessageTest, AFailureLeavesWhatWasReadBefore)
{
    Message m = Raw("asi", 2, "a", "b", 3);
    Strings strings;
    std::string wrong = "untouched";
    EXPECT_EQ(Failure(m, strings, wrong),
              "sd_bus_message_read_basic string: System.Error.ENXIO: No such device or address");
    EXPECT_EQ(strings.size(), 2U);
    EXPECT_EQ(wrong, "untouched");
    std::int32_t number = 0;
    m.read(number);
    EXPECT_EQ(number, 3);
}

TEST_F(MessageTest, CopiesShareTheReadPosition)
{
    Message m = Raw("ii", 1, 2);
    Message copy(m);
    std::int32_t number = 0;
    m.read(number);
    copy.read(number);
    EXPECT_EQ(number, 2);
    Message moved(std::move(m));
    EXPECT_FALSE(m); // NOLINT(bugprone-use-after-move): null is what is promised
    EXPECT_TRUE(moved);
    EXPECT_EQ(moved.get(), copy.get());
    copy = Message();
    EXPECT_FALSE(copy);
    EXPECT_EQ(sd_bus_message_rewind(moved.get(), 1), 1);

    // Released and wrapped again: adopting takes no reference, wrapping takes one.
    sd_bus_message* const raw = moved.release();
    EXPECT_FALSE(moved);
    {
        Message wrapped(raw);
        Message adopted(raw, std::false_type());
        EXPECT_EQ(wrapped.get(), adopted.get());
    }
}

TEST_F(MessageTest, TellsItsHeader)
{
    Message m = Raw("s", "x");
    EXPECT_STREQ(m.get_path(), "/path");
    EXPECT_STREQ(m.get_interface(), "com.example.Interface");
    EXPECT_STREQ(m.get_member(), "Member");
    EXPECT_FALSE(m.is_method_error());
    EXPECT_EQ(m.get_error(), nullptr);
}

} // namespace
