// What the generator makes for interfaces outside the catalogue, used on a bus.
//
// names.hpp only has to compile: its interface says everything that the code around it says, too.

#include "in_child.hpp"
#include "names.hpp"
#include "types.hpp"

#include <bmcbus/testing.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <vector>

using bmcbus::ObjectPath;
using bmcbus::testing::Call;
using bmcbus::testing::Dispatch;
using bmcbus::testing::FakeService;
using bmcbus::testing::PrivateBus;
using bmcbus::testing::Value;
using Cached = ClientCache::com::example::test::Types;
using Direct = ClientEdge::com::example::test::Types;

namespace
{

constexpr const char* service_name = "com.example.Test";
constexpr const char* path = "/com/example/test";
constexpr const char* interface_name = "com.example.test.Types";

using Nested = std::map<ObjectPath, std::map<std::string, std::tuple<int64_t, std::vector<bool>>>>;

const Nested nested = {{ObjectPath("/a"), {{"one", {-1, {true, false}}}, {"two", {2, {}}}}},
                       {ObjectPath("/b"), {}}};
constexpr const char* nested_text =
    R"(a{oa{s(xab)}} 2 "/a" 2 "one" -1 2 true false "two" 2 0 "/b" 0)";

class Served : public ::testing::Test
{
  protected:
    PrivateBus bus;
    FakeService service{service_name, path, {interface_name}};
    Direct direct{service_name, path};
};

// Writes through the direct proxy, looks at the service, reads through both proxies.
#define ROUND_TRIP(P, text, ...)                                                                   \
    do                                                                                             \
    {                                                                                              \
        SCOPED_TRACE(#P);                                                                          \
        const decltype(direct.Get_##P()) written __VA_ARGS__;                                      \
        direct.Set_##P(written);                                                                   \
        EXPECT_EQ(service->Get(#P).Text(), text);                                                  \
        bool ok = false;                                                                           \
        decltype(direct.Get_##P()) read{};                                                         \
        direct.Get_##P(ok, read);                                                                  \
        EXPECT_TRUE(ok);                                                                           \
        EXPECT_EQ(read, written);                                                                  \
        EXPECT_TRUE(Dispatch([&] { return cached.Get_##P() == written; }));                        \
    } while (false)

TEST_F(Served, PropertiesOfEveryTypeTravel)
{
    Cached cached(path, service_name);
    ASSERT_TRUE(cached.Ready());
    ROUND_TRIP(y, "y 255", {255});
    ROUND_TRIP(b, "b true", {true});
    ROUND_TRIP(n, "n -32768", {std::numeric_limits<int16_t>::min()});
    ROUND_TRIP(q, "q 65535", {65535});
    ROUND_TRIP(i, "i -2147483648", {std::numeric_limits<int32_t>::min()});
    ROUND_TRIP(u, "u 4294967295", {std::numeric_limits<uint32_t>::max()});
    ROUND_TRIP(x, "x -9223372036854775808", {std::numeric_limits<int64_t>::min()});
    ROUND_TRIP(t, "t 18446744073709551615", {std::numeric_limits<uint64_t>::max()});
    ROUND_TRIP(d, "d -2.5", {-2.5});
    ROUND_TRIP(s, R"(s "text")", {"text"});
    ROUND_TRIP(o, R"(o "/some/path")", {"/some/path"});
    ROUND_TRIP(ay, "ay 2 0 255", {0, 255});
    ROUND_TRIP(ab, "ab 2 true false", {true, false});
    ROUND_TRIP(an, "an 1 -5", {-5});
    ROUND_TRIP(aq, "aq 1 5", {5});
    ROUND_TRIP(ai, "ai 2 -5 6", {-5, 6});
    ROUND_TRIP(au, "au 1 7", {7});
    ROUND_TRIP(ax, "ax 1 -8", {-8});
    ROUND_TRIP(at, "at 1 9", {9});
    ROUND_TRIP(ad, "ad 2 0.5 -0.25", {0.5, -0.25});
    ROUND_TRIP(as, R"(as 2 "one" "")", {"one", ""});
    ROUND_TRIP(ao, R"(ao 1 "/p")", {ObjectPath("/p")});
    ROUND_TRIP(aas, R"(aas 2 1 "in" 0)", {std::vector<std::string>{"in"}, {}});
    ROUND_TRIP(single, R"((s) "alone")", {"alone"});
    ROUND_TRIP(within, R"(((yb)(sd)) 1 true "x" 1.5)",
               {std::make_tuple(uint8_t{1}, true), std::make_tuple("x", 1.5)});
    ROUND_TRIP(numbered, R"(a{u(sao)} 1 3 "three" 1 "/3")", {{3, {"three", {ObjectPath("/3")}}}});
    ROUND_TRIP(flags, "a{bd} 2 false 0.5 true 1.5", {{true, 1.5}, {false, 0.5}});
    ROUND_TRIP(nested, nested_text, (::nested));
}

TEST_F(Served, MethodsOfEveryTypeTravel)
{
    const auto echo = [](const Call& call) { return call.arguments; };
    service->OnCall("numbers", echo);
    service->OnCall("others", echo);

    bool ok = false;
    uint8_t y{};
    bool b{};
    int16_t n{};
    uint16_t q{};
    int32_t i{};
    uint32_t u{};
    int64_t x{};
    uint64_t t{};
    double d{};
    direct.Call_numbers(ok, 1, true, -2, 3, -4, 5, -6, 7, 0.5, y, b, n, q, i, u, x, t, d);
    EXPECT_TRUE(ok);
    EXPECT_EQ(std::make_tuple(y, b, n, q, i, u, x, t, d),
              std::make_tuple(1, true, -2, 3, -4, 5, -6, 7, 0.5));
    EXPECT_EQ(service.Calls("numbers").at(0).Arguments(), "ybnqiuxtd 1 true -2 3 -4 5 -6 7 0.5");

    std::string s;
    ObjectPath o;
    Nested back;
    direct.Call_others(ok, "text", ObjectPath("/path"), nested, s, o, back);
    EXPECT_TRUE(ok);
    EXPECT_EQ(s, "text");
    EXPECT_EQ(o, ObjectPath("/path"));
    EXPECT_EQ(back, nested);

    direct.Call_nothing(ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(service.Calls("nothing").at(0).Arguments(), "");
}

TEST_F(Served, SignalsOfEveryTypeArrive)
{
    ClientCache::Types::everything everything(path);
    ClientCache::Types::bare bare(path);
    service->Emit(
        "everything", 1, true, -2, 3, -4, 5, -6, 7, 0.5, "text", "/path",
        Value(std::map<std::string, std::map<std::string, std::tuple<int64_t, std::vector<bool>>>>{
            {"/a", {{"one", {-1, {true, false}}}, {"two", {2, {}}}}}, {"/b", {}}}));
    ASSERT_TRUE(Dispatch([&] { return everything.Ready(); }));
    EXPECT_EQ(std::make_tuple(everything.Get_y(), everything.Get_b(), everything.Get_n(),
                              everything.Get_q(), everything.Get_i(), everything.Get_u(),
                              everything.Get_x(), everything.Get_t(), everything.Get_d()),
              std::make_tuple(1, true, -2, 3, -4, 5, -6, 7, 0.5));
    EXPECT_EQ(everything.Get_s(), "text");
    EXPECT_EQ(everything.Get_o(), ObjectPath("/path"));
    EXPECT_EQ(everything.Get_nested(), nested);

    EXPECT_FALSE(bare.Ready());
    service->Emit("bare");
    EXPECT_TRUE(Dispatch([&] { return bare.Ready() && bare.SignalCount() == 1; }));
}

void CreateTen()
{
    for (int i = 0; i < 10; ++i)
    {
        Cached::Create("/a", service_name, true);
    }
}

// What the first static object of the program does at its end, when the registries have been
// emptied.
void (*atExit)() = [] {};

struct First
{
    ~First() { atExit(); }
};
[[gnu::init_priority(200)]] const First first;

TEST_F(Served, RegistriesAreEmptyAndUsableAtTheEndOfTheProcess)
{
    const auto use = []
    {
        CreateTen();
        Cached::Release(Cached::Lookup("/a"));
        if (Cached::active.size() != 9)
        {
            _exit(1);
        }
        Cached::Cleanup();
    };
    for (void (*what)() :
         {+[] { Cached::Cleanup(); }, +[] { Cached::Release(Cached::Lookup("/a")); }, +use})
    {
        const auto end = [&]
        {
            CreateTen();
            // Destroyed behind the registry's back, before it is emptied; so nothing leaks.
            static std::vector<std::unique_ptr<Cached>> kept;
            for (Cached* const object : Cached::active)
            {
                kept.emplace_back(object);
            }
            atExit = what;
            std::exit(0);
            return 1;
        };
        EXPECT_EQ(test::ExitOfChild(end), 0);
    }
}

} // namespace
