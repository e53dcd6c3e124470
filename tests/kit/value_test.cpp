// The kit's values: types, text, conversion, and what is refused.

#include <bmcbus/testing/text.hpp>
#include <bmcbus/testing/value.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

using namespace bmcbus::testing;
using ::testing::ElementsAre;

TEST(ValueTest, CppTypesHaveTheirSignatures)
{
    EXPECT_EQ(SignatureOf<long long>(), "x");
    EXPECT_EQ(SignatureOf<unsigned long>(), sizeof(long) == 8 ? "t" : "u");
    EXPECT_EQ((SignatureOf<std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>>()),
              "a{s(yyyb)}");
    EXPECT_EQ((SignatureOf<std::vector<std::map<Path, std::vector<Value>>>>()), "aa{oav}");
    EXPECT_EQ((SignatureOf<std::list<std::pair<TypeSignature, std::variant<bool, double>>>>()),
              "a(gv)");
    static_assert(!Sendable<char> && !Sendable<float> && !Sendable<std::tuple<>> &&
                  !Sendable<signed char>);
}

TEST(ValueTest, SignaturesAreSplitOrRefused)
{
    EXPECT_THAT(SplitSignature("ya{s(yyyb)}aavs"), ElementsAre("y", "a{s(yyyb)}", "aav", "s"));
    EXPECT_THAT(SplitSignature(""), ElementsAre());
    for (const char* wrong :
         {"a", "()", "(s", "a{s}", "a{vs}", "{ss}", "a{ss", "z", "a{sss}", "s)"})
    {
        EXPECT_THROW(SplitSignature(wrong), std::invalid_argument) << wrong;
    }
    EXPECT_THROW(Value::Default("ss"), std::invalid_argument);
    EXPECT_THROW(Value::Default(std::string(100, 'a') + "s"), std::invalid_argument);
}

TEST(ValueTest, TextIsThatOfBusctl)
{
    const std::map<std::string, std::tuple<uint8_t, bool>> fans{{"a\"b", {1, true}},
                                                                {"c", {2, false}}};
    EXPECT_EQ(Value(fans).Text(), R"(a{s(yb)} 2 "a\"b" 1 true "c" 2 false)");
    EXPECT_EQ(Value::Variant(Value::Variant(1.5)).Text(), "v v d 1.5");
    EXPECT_EQ(Value(std::vector<std::string>()).Text(), "as 0");
    EXPECT_EQ(TextOf({"/x", -1, std::vector<std::string>{"i"}}), R"(sias "/x" -1 1 "i")");
    EXPECT_EQ(AsPropertyMap({{"k", 1}, {"k", "two"}}).Text(), R"(a{sv} 2 "k" i 1 "k" s "two")");
}

TEST(ValueTest, TextThatMayNotTravelIsTold)
{
    const std::string letters = "a\u00E9\u20AC\uD7FF\uE000\uFFFF\U00010000\U0010FFFF";
    EXPECT_TRUE(MayTravel(letters + "\x01\x7f\u0085"));
    EXPECT_EQ(Printable(letters), letters);
    // No letter, half of one, too many bytes for it, half of a UTF-16 pair, beyond the last one.
    for (const char* wrong : {"\x80", "\xBF\x80", "\xC3", "\xC3z", "\xE2\x82", "\xF0\x9F\x98",
                              "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
                              "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF"})
    {
        EXPECT_FALSE(MayTravel(wrong)) << Printable(wrong);
        EXPECT_FALSE(MayTravel(letters + wrong)) << Printable(wrong);
        EXPECT_TRUE(MayTravel(Printable(wrong)));
    }
    EXPECT_FALSE(MayTravel(std::string("a\0b", 3)));
    EXPECT_EQ(Printable(std::string("\0\n\x7f\u0085\xC3", 6), "n"), R"(\x00\x0a\x7f\xc2\x85\xc3)");
    EXPECT_EQ(Printable("nun", "u"), R"(n\x75n)");
    EXPECT_EQ(Value("\u20AC\n\xFF").Text(), "s \"\u20AC\\n\\xff\"");
}

TEST(ValueTest, ConversionKeepsEveryDigitOrRefuses)
{
    EXPECT_EQ(Value(5).As("y"), Value(uint8_t{5}));
    EXPECT_EQ(Value(7).As("d"), Value(7.0));
    EXPECT_EQ(Value(7.0).As("n"), Value(int16_t{7}));
    EXPECT_EQ(Value("/a").As("o"), Value(Path{"/a"}));
    EXPECT_EQ(Value(5).As("v"), Value::Variant(5));
    EXPECT_EQ(Value::Variant(5).As("y"), Value(uint8_t{5}));
    EXPECT_EQ(Value(std::vector<int>{1, 2}).As("ay"), Value(std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(
        Value(std::map<std::string, std::tuple<int, int>>{{"k", {1, 2}}}).As("a{s(yd)}").Text(),
        R"(a{s(yd)} 1 "k" 1 2)");
    EXPECT_EQ(Value(std::vector<int>()).As("a{sv}").Text(), "a{sv} 0");

    const double beyond = 18446744073709551616.0;
    const std::vector<std::pair<Value, std::string>> refused = {
        {256, "y"},
        {-1, "q"},
        {7.5, "i"},
        {beyond, "t"},
        {-1.0, "t"},
        {true, "i"},
        {1, "b"},
        {"5", "y"},
        {5, "s"},
        {5, "ai"},
        {"x", "as"},
        {5, "yy"},
        {std::vector<int>{256}, "ay"},
        {std::tuple<int, int>{1, 2}, "(i)"},
        {std::vector<int>{1}, "a{sv}"},
        {std::numeric_limits<double>::quiet_NaN(), "i"}};
    for (const auto& [value, type] : refused)
    {
        EXPECT_THROW(value.As(type), std::invalid_argument) << value.Text() << " as " << type;
    }
    try
    {
        Value(std::vector<int>{1, 300}).As("ay");
        FAIL();
    }
    catch (const std::invalid_argument& error)
    {
        EXPECT_STREQ(error.what(), "ai 2 1 300 does not fit into ay (300 is no y)");
    }
}

TEST(ValueTest, CppValuesComeBack)
{
    using Readings = std::map<std::string, std::tuple<uint8_t, double, std::vector<bool>>>;
    const Readings readings{{"a", {1, 2.5, {true, false}}}};
    EXPECT_EQ(Value(readings).Get<Readings>(), readings);
    EXPECT_EQ(Value::Variant(Value::Variant("deep")).Get<std::string>(), "deep");
    using Either = std::variant<uint8_t, std::string>;
    EXPECT_EQ(Value::Variant("x").Get<Either>(), Either("x"));
    EXPECT_THROW(Value::Variant(1.5).Get<Either>(), std::invalid_argument);
    EXPECT_THROW(Value("x").Get<int>(), std::invalid_argument);
    EXPECT_EQ(Value::Default("(sa{sv}ov)").Text(), R"((sa{sv}ov) "" 0 "/" s "")");
}

TEST(ValueTest, ContainersHoldOnlyTheirTypes)
{
    EXPECT_THROW(Value::Array("s", {1}), std::invalid_argument);
    EXPECT_THROW(Value::Dictionary("s", "v", {{"k", 1}}), std::invalid_argument);
    EXPECT_THROW(Value::Struct({}), std::invalid_argument);
    EXPECT_EQ(Value::Array("(si)", {}).Text(), "a(si) 0");
}
