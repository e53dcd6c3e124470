#include "client.hpp"

#include <bmcbus/testing.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace bmcbus::testing;
using test::Client;

namespace
{

constexpr const char* notFound = "xyz.openbmc_project.Common.Error.ResourceNotFound";
using Names = std::vector<std::string>;

class FakeMapperTest : public ::testing::Test
{
  protected:
    PrivateBus bus;
    FakeMapper mapper;
    Client client;

    FakeMapperTest()
    {
        mapper.Add("/a", "svc.b", {"i.One"});
        mapper.Add("/a/b", "svc.b", {"i.One", "i.Two"});
        mapper.Add("/a/b", "svc.a", {"i.Two"});
        mapper.Add("/a/b/c/d", "svc.c", {"i.Three"});
        mapper.Add("/ab", "svc.d", {"i.One"});
    }
    std::string Ask(const std::string& member, const std::vector<Value>& arguments)
    {
        return client.Call(mapperName, mapperPath, mapperName, member, arguments).Text();
    }
};

TEST_F(FakeMapperTest, AnswersFromItsTable)
{
    EXPECT_EQ(Ask("GetObject", {"/a/b", Names{}}),
              R"(a{sas} 2 "svc.a" 1 "i.Two" "svc.b" 2 "i.One" "i.Two")");
    EXPECT_EQ(Ask("GetObject", {"/a/b", Names{"i.One", "i.None"}}),
              R"(a{sas} 1 "svc.b" 2 "i.One" "i.Two")");
    EXPECT_EQ(Ask("GetObject", {"/a/b", Names{"i.None"}}), notFound);
    EXPECT_EQ(Ask("GetObject", {"/a/b/c", Names{}}), notFound);

    EXPECT_EQ(Ask("GetSubTreePaths", {"/", 0, Names{}}), R"(as 4 "/a" "/a/b" "/a/b/c/d" "/ab")");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/a", 0, Names{}}), R"(as 2 "/a/b" "/a/b/c/d")");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/a", 1, Names{}}), R"(as 1 "/a/b")");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/a", 2, Names{"i.Three"}}), "as 0");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/a/b/c", 0, Names{}}), R"(as 1 "/a/b/c/d")");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/none", 0, Names{}}), notFound);
    EXPECT_EQ(Ask("GetSubTree", {"/a", 3, Names{"i.Three"}}),
              R"(a{sa{sas}} 1 "/a/b/c/d" 1 "svc.c" 1 "i.Three")");
    EXPECT_EQ(Ask("GetAncestors", {"/a/b/c/d", Names{"i.One"}}),
              R"(a{sa{sas}} 2 "/a" 1 "svc.b" 1 "i.One" "/a/b" 1 "svc.b" 2 "i.One" "i.Two")");
    EXPECT_EQ(Ask("GetAncestors", {"/none", Names{}}), notFound);
    EXPECT_EQ(Ask("GetSubTreePaths", {"/ab/", 0, Names{}}), "as 0");
    EXPECT_EQ(Ask("GetAncestors", {"/a/b/", Names{}}), R"(a{sa{sas}} 1 "/a" 1 "svc.b" 1 "i.One")");
    EXPECT_EQ(Ask("GetSubTreePaths", {"/ab//", 0, Names{}}), notFound);

    mapper.Remove("svc.b", "/a/b");
    EXPECT_EQ(Ask("GetObject", {"/a/b", Names{"i.One"}}), notFound);
    mapper.Remove("svc.b");
    EXPECT_EQ(Ask("GetObject", {"/a", Names{}}), notFound);
}

TEST_F(FakeMapperTest, HasFaultsAndAMemory)
{
    mapper.On("GetObject").Once().ReplyError("org.freedesktop.DBus.Error.Timeout");
    EXPECT_EQ(Ask("GetObject", {"/a", Names{}}), "org.freedesktop.DBus.Error.Timeout");
    EXPECT_EQ(Ask("GetObject", {"/a", Names{}}), R"(a{sas} 1 "svc.b" 1 "i.One")");
    EXPECT_EQ(Ask("GetObject", {"/a", 1}), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(mapper.Calls("GetObject").front().Arguments(), R"(sas "/a" 0)");
}

} // namespace
