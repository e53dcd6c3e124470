// The text operations, by tables.

#include <pathops.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <stdexcept>
#include <string>

namespace
{

using namespace std::string_literals;

struct Case
{
    std::string in;
    std::string out;
};

TEST(PathOps, ClassifiesEveryByteAsAscii)
{
    // A locale in which some of the upper half are letters must make no difference.
    setlocale(LC_ALL, "en_US.ISO-8859-1");
    for (int i = 0; i < 256; ++i)
    {
        const std::string s(1, static_cast<char>(i));
        const bool upper = i >= 'A' && i <= 'Z';
        const bool kept = upper || (i >= 'a' && i <= 'z') || (i >= '0' && i <= '9');
        const std::string lower = upper ? std::string(1, static_cast<char>(i + 32)) : s;
        EXPECT_EQ(DBU_make_lower_case(s), lower) << i;
        EXPECT_EQ(DBU_replace_with_underscore(s), kept ? s : "_") << i;
        EXPECT_EQ(DBU_std_key_to_dbus_path_fragment("x" + s + "y"),
                  i == '|'   ? "y"
                  : i == ':' ? "y/x"
                  : i == '#' ? "x/y"
                             : "x" + (kept ? lower : "_") + "y")
            << i;
        EXPECT_EQ(DBU_std_key_to_dbus_path_fragment_cfgmgr("x" + s + "y"),
                  i == 0     ? "x"
                  : i == '#' ? "x/y"
                             : "x" + (kept ? lower : "_") + "y")
            << i;
    }
    setlocale(LC_ALL, "C");
}

TEST(PathOps, ConvertsStandardKeys)
{
    for (const Case& c : std::initializer_list<Case>{{"", ""},
                                                     {"a:b:c", "c/b/a"},
                                                     {"x.y:", "x_y"},
                                                     {"Sensor:", "sensor"},
                                                     {":Sensor", "sensor"},
                                                     {"a::b", "b/a"},
                                                     {"a#b:c#d", "c_d/a_b"},
                                                     {"a#b c", "a/b_c"},
                                                     {"#a##b", "a/b"},
                                                     {"a/b", "a_b"},
                                                     {"/a:/b/", "_b_/_a"},
                                                     {"A|B|C:D", "d/c"},
                                                     {"A:B|C#D", "c/d"},
                                                     {"abc|", ""},
                                                     {"###", ""},
                                                     {":::", ""},
                                                     {":#:", "_"},
                                                     {"|||", ""},
                                                     {"a\0#b"s, "a_/b"s},
                                                     {"\xC3\xA9#A", "__/a"}})
    {
        EXPECT_EQ(DBU_std_key_to_dbus_path_fragment(c.in), c.out) << c.in;
    }
    EXPECT_EQ(DBU_std_key_to_dbus_path_fragment("A:B"), "b/a");
}

TEST(PathOps, InsertsBeforeTheLastComponent)
{
    struct Insertion
    {
        std::string path;
        std::string key;
        std::string out;
    };
    for (const Insertion& c : std::initializer_list<Insertion>{
             {"/xyz/sensors/speed", "Fan#One", "/xyz/sensors/fan/one/speed"},
             {"/xyz/", "Fan#One", "/xyz/fan/one/"},
             {"/a/b", "", "/a//b"},
             {"", "Fan", "/fan"},
             {"", "", "/"},
             {"/", "A:B", "/b/a/"},
             {"speed", "Fan", "speed/fan"}})
    {
        EXPECT_EQ(DBU_insert_key(c.path, c.key), c.out) << c.path << " " << c.key;
        EXPECT_EQ(DBU_insert_key(c.path.c_str(), c.key), c.out);
        EXPECT_EQ(DBU_insert_key(c.path.c_str(), c.key.c_str()), c.out);
    }
    EXPECT_EQ(DBU_insert_key("/a\0/b"s, "k\0"s), "/a\0/k_/b"s);
}

TEST(PathOps, RefusesNullPointers)
{
    const char* null = nullptr;
    const auto refused = testing::ThrowsMessage<std::logic_error>(
        "basic_string: construction from null is not valid");
    EXPECT_THAT([&] { DBU_std_key_to_dbus_path_fragment(null); }, refused);
    EXPECT_THAT([&] { DBU_insert_key(null, "k"); }, refused);
    EXPECT_THAT([&] { DBU_insert_key("/p", null); }, refused);
    EXPECT_THAT([&] { DBU_insert_key(null, "k"s); }, refused);
}

// Anything that grows faster than the length, or recurses once per byte, does not come back here.
TEST(PathOps, TakesLongRunsOfSeparators)
{
    constexpr size_t length = 4UL << 20;
    for (const char c : {':', '|', '#', '/'})
    {
        const std::string key(length, c);
        const std::string underscores = c == '/' ? std::string(length, '_') : "";
        EXPECT_EQ(DBU_std_key_to_dbus_path_fragment(key), underscores) << c;
        EXPECT_EQ(DBU_std_key_to_dbus_path_fragment_cfgmgr(key).size(), c == '#' ? 0 : length) << c;
        EXPECT_EQ(DBU_normalize_slashes(key).size(), c == '/' ? 0 : length) << c;
        EXPECT_EQ(DBU_insert_key(key, key).size(), length + underscores.size() + 1) << c;
    }
}

} // namespace
