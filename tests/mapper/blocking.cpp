// The object mapper's blocking questions, on the wire and in the log.

#include "fixture.hpp"

#include <thread>

using namespace ObjectMapper::Wrappers;
using bmcbus::testing::NamedValues;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Property;
using testing::StartsWith;
using testing::ThrowsMessage;

namespace
{

using namespace std::string_literals;

const std::string notFound = "xyz.openbmc_project.Common.Error.ResourceNotFound";

// The four questions, called alike.
struct Question
{
    std::string name;
    std::function<void(const std::string& path, const Names& interfaces)> ask;
    std::string sent;    // the arguments for "/p" and the interfaces "b.I" and "a.I"
    std::string failure; // the lines after the first, for the same
};

const std::vector<Question>& Questions()
{
    static const std::vector<Question> questions = {
        {"GetObject", [](const std::string& p, const Names& i) { GetObject(p, i); },
         R"(sas "/p" 2 "b.I" "a.I")",
         Line(2, "GetObject", " path: /p") + Line(2, "GetObject", " interface: b.I") +
             Line(2, "GetObject", " interface: a.I")},
        {"GetSubTree", [](const std::string& p, const Names& i) { GetSubTree(p, 7, i); },
         R"(sias "/p" 7 2 "b.I" "a.I")",
         Line(2, "GetSubTree", " -: /p 7") + Line(2, "GetSubTree", " -: b.I") +
             Line(2, "GetSubTree", " -: a.I")},
        {"GetSubTreePaths", [](const std::string& p, const Names& i) { GetSubTreePaths(p, -1, i); },
         R"(sias "/p" -1 2 "b.I" "a.I")",
         Line(2, "GetSubTreePaths", " -: /p -1") + Line(2, "GetSubTreePaths", " -: b.I") +
             Line(2, "GetSubTreePaths", " -: a.I")},
        {"GetAncestors", [](const std::string& p, const Names& i) { GetAncestors(p, i); },
         R"(sas "/p" 2 "b.I" "a.I")",
         Line(2, "GetAncestors", " -: /p") + Line(2, "GetAncestors", " -: b.I") +
             Line(2, "GetAncestors", " -: a.I")},
    };
    return questions;
}

using Mapper = MapperTest;

TEST_F(Mapper, IsAskedWithTheArgumentsInOrder)
{
    for (const Question& question : Questions())
    {
        SCOPED_TRACE(question.name);
        mapper.ClearCalls();
        EXPECT_ANY_THROW(question.ask("/p", {"b.I", "a.I"})); // nothing is there
        ASSERT_EQ(mapper.Calls().size(), 1U);
        const auto call = mapper.Calls().front();
        EXPECT_EQ(call.path, "/xyz/openbmc_project/object_mapper");
        EXPECT_EQ(call.interface, "xyz.openbmc_project.ObjectMapper");
        EXPECT_EQ(call.member, question.name);
        EXPECT_EQ(call.Arguments(), question.sent);
    }
    mapper.ClearCalls();
    EXPECT_ANY_THROW(GetSubTree("/p", 0, {}));
    EXPECT_EQ(mapper.Calls().front().Arguments(), R"(sias "/p" 0 0)");
}

TEST_F(Mapper, AnswersAreReadWhole)
{
    const Services services = {{"a.svc", {"z.I", "a.I"}}, {"b.svc", {}}};
    const Tree tree = {{"/x", services}, {"/y", {}}};
    mapper.On("GetObject").Reply({services});
    mapper.On("GetSubTree").Reply({tree});
    mapper.On("GetAncestors").Reply({tree});
    mapper.On("GetSubTreePaths").Reply({Names{"/z", "/a", "/a"}});
    EXPECT_EQ(GetObject("/p", {}), services);
    EXPECT_EQ(GetSubTree("/p", 1, {}), tree);
    EXPECT_EQ(GetAncestors("/p", {}), tree);
    EXPECT_THAT(GetSubTreePaths("/p", 1, {}), ElementsAre("/z", "/a", "/a"));
    EXPECT_EQ(Logged(), "");
}

TEST_F(Mapper, ErrorRepliesAreLoggedAndThrown)
{
    mapper.On("*").ReplyError("com.example.Error.Broken", "it broke");
    const std::string text = "sd_bus_call: com.example.Error.Broken: it broke";
    for (const Question& question : Questions())
    {
        test::ClearLog();
        EXPECT_THAT(
            [&] {
                question.ask("/p", {"b.I", "a.I"});
            },
            ThrowsMessage<bmcbus::Error>(text));
        EXPECT_EQ(Logged(), Line(2, question.name, "ex: " + text) + question.failure);
    }
    try
    {
        GetObject("/p", {});
    }
    catch (const bmcbus::Error& e)
    {
        EXPECT_STREQ(e.name(), "com.example.Error.Broken");
    }
}

TEST_F(Mapper, AnswersOfOtherTypesAreRefused)
{
    const std::vector<std::vector<Value>> wrong = {
        {},
        {uint32_t{5}},
        {"text"},
        {std::map<std::string, std::string>{{"a", "b"}}},
        {std::vector<std::tuple<std::string, Names>>{{"a", {"b"}}}},
        {std::map<std::string, std::map<std::string, std::string>>{{"/x", {{"a", "b"}}}}},
    };
    for (const auto& values : wrong)
    {
        mapper.On("*").Reply(values);
        for (const Question& question : Questions())
        {
            SCOPED_TRACE(question.name + " " + bmcbus::testing::TextOf(values));
            test::ClearLog();
            EXPECT_THROW(question.ask("/p", {"b.I", "a.I"}), bmcbus::Error);
            EXPECT_THAT(Logged(),
                        StartsWith(Line(2, question.name, "ex: sd_bus_message_").substr(0, 40)));
            EXPECT_THAT(Logged(), testing::EndsWith(question.failure));
        }
    }
    mapper.Heal();
    mapper.Add("/p", "a.svc", {"a.I"});
    EXPECT_EQ(GetObject("/p", {}), (Services{{"a.svc", {"a.I"}}}));
}

TEST_F(Mapper, TextThatMayNotTravelIsNotSent)
{
    for (const std::string& text : {"/\xC3"s, "/a\0b"s, "/\xED\xA0\x80"s})
    {
        for (const Question& question : Questions())
        {
            EXPECT_THAT([&] { question.ask(text, {}); },
                        ThrowsMessage<bmcbus::Error>(HasSubstr("InvalidArgs")));
            EXPECT_THROW(question.ask("/p", {"a.I", text}), bmcbus::Error);
        }
        std::string service = "before";
        PathAndInterfaceToService("/p", text, service);
        EXPECT_EQ(service, "");
    }
    EXPECT_TRUE(mapper.Calls().empty());
    mapper.Add("/\xC3\xA9", "a.svc", {"a.I"});
    EXPECT_EQ(GetObject("/\xC3\xA9", {}).size(), 1U); // the connection is as good as before
}

TEST_F(Mapper, ServiceIsTheFirstByNameThatListsTheInterface)
{
    mapper.On("GetObject")
        .Reply({Services{{"c.svc", {"x.I"}},
                         {"b.svc", {"y.I", "x.I"}},
                         {"a.svc", {"x.I.longer", "x", ""}},
                         {"", {}}}});
    for (const auto find : {PathAndInterfaceToService, PathAndInterfaceToService2})
    {
        mapper.ClearCalls();
        std::string service = "before";
        find("/p", "x.I", service);
        EXPECT_EQ(service, "b.svc");
        EXPECT_EQ(mapper.Calls().front().Arguments(), R"(sas "/p" 1 "x.I")");
        find("/p", "z.I", service);
        EXPECT_EQ(service, "");
    }
    EXPECT_EQ(Logged(), "");
}

TEST_F(Mapper, SearchThatFailsLeavesNoService)
{
    mapper.On("GetObject").ReplyError(notFound, "no");
    const std::string text = "sd_bus_call: " + notFound + ": no";
    const std::string query = Line(2, "GetObject", "ex: " + text) +
                              Line(2, "GetObject", " path: /p") +
                              Line(2, "GetObject", " interface: x.I");
    std::string service = "before";
    PathAndInterfaceToService("/p", "x.I", service);
    EXPECT_EQ(service, "");
    EXPECT_EQ(Logged(), query + Line(2, "PathAndInterfaceToService", "exception: " + text));
    test::ClearLog();
    service = "before";
    EXPECT_THAT([&] { PathAndInterfaceToService2("/p", "x.I", service); },
                Throws<bmcbus::Error>(Property(&bmcbus::Error::name, testing::StrEq(notFound))));
    EXPECT_EQ(service, "");
    EXPECT_EQ(Logged(), query + Line(2, "PathAndInterfaceToService2", "exception: " + text));
}

TEST_F(Mapper, AssociationsAreNotAskedFor)
{
    EXPECT_TRUE(GetAssociations("/p").empty());
    EXPECT_TRUE(GetAssociations("\xC3").empty());
    EXPECT_TRUE(mapper.Calls().empty());
    EXPECT_EQ(Logged(), "");
}

TEST_F(Mapper, BusThatGoesAwayIsAnError)
{
    mapper.On("GetObject").Hold();
    std::thread killer(
        [this]
        {
            mapper.WaitForHeld();
            bus.Kill();
        });
    EXPECT_THROW(GetObject("/p", {}), bmcbus::Error);
    killer.join();
    std::string service = "before";
    PathAndInterfaceToService("/p", "x.I", service); // still the dead connection
    EXPECT_EQ(service, "");
    connection = sd_bus_flush_close_unref(connection);
    EXPECT_THAT([] { GetObject("/p", {}); },
                ThrowsMessage<bmcbus::Error>(StartsWith("sd_bus_default_system: ")));
    EXPECT_THROW(GetAssociations("/p"), bmcbus::Error);
    bus.Restart();
    EXPECT_TRUE(GetAssociations("/p").empty());
}

} // namespace
