// Async::Ops::GetAllProperties by itself.

#include "fixture.hpp"

#include <async_ops.hpp>

#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using Variant = Fan::Variant;
using Properties = std::map<std::string, Variant>;

class GetAllProperties : public ClientTest
{
  protected:
    struct Completion
    {
        bool success;
        Properties properties;
        void* context;
        bool operator==(const Completion&) const = default;
    };

    // Queues a request whose callback notes what it is told, and then throws so many times.
    void Ask(const std::string& service, size_t throws = 0, const std::string& path = fanPath,
             const std::string& interface = fanInterface)
    {
        Async::Ops::GetAllProperties<Variant>(
            wrapper, service, path, interface,
            [this, throws, token = alive](bool success, Properties& properties, void* context)
            {
                completions.push_back({success, properties, context});
                if (completions.size() <= throws)
                {
                    throw std::runtime_error("from the callback");
                }
            },
            &completions);
    }

    void Await(size_t count)
    {
        EXPECT_TRUE(kit::Dispatch(connection, [&] { return completions.size() >= count; }));
        EXPECT_EQ(completions.size(), count);
        EXPECT_EQ(alive.use_count(), 1) << "the callback was not destroyed";
    }

    // Everything the library wrote, in order.
    static Lines All()
    {
        Lines lines;
        for (const test::LogLine& line : test::Log())
        {
            EXPECT_EQ(line.source, 300U);
            EXPECT_EQ(line.file, "async_ops.hpp");
            lines.push_back(std::to_string(line.level) + " " + line.function + " \"" + line.format +
                            "\" " + line.text);
        }
        return lines;
    }

    Completion Failed() { return {false, {}, &completions}; }

    std::shared_ptr<int> alive = std::make_shared<int>();
    std::vector<Completion> completions;
    bmcbus::Bus wrapper{connection};
};

const std::string queuing = "GetAllProperties";
const std::string handling = "Internal_GetAllProperties_Callback";

TEST_F(GetAllProperties, GivesEveryProperty)
{
    Ask(fanService);
    EXPECT_THAT(completions, IsEmpty());
    EXPECT_EQ(alive.use_count(), 2);
    Await(1);
    const Completion right{true, {{"fanCount", uint8_t{2}}, {"fanPWMData", twoFans}}, &completions};
    EXPECT_THAT(completions, ElementsAre(right));
    EXPECT_THAT(All(), ElementsAre(Line(5, handling, "enter"), Line(5, handling, "results read ok"),
                                   Line(5, handling, "leave")));
    ASSERT_EQ(fans.Calls().size(), 1U);
    EXPECT_EQ(fans.Calls()[0].member, "GetAll");
    EXPECT_EQ(fans.Calls()[0].Arguments(), "s \"" + fanInterface + "\"");

    fans.On("GetAll").Once().Reply({kit::AsPropertyMap({})});
    Ask(fanService);
    Await(2);
    EXPECT_EQ(completions[1], (Completion{true, {}, &completions}));
}

TEST_F(GetAllProperties, SkipsUnknownTypes)
{
    fans.On("GetAll").Reply(
        {kit::AsPropertyMap({{"text", "text"}, {"fanCount", uint8_t{3}}, {"fanCount", 4}})});
    Ask(fanService);
    Await(1);
    EXPECT_EQ(completions[0].properties,
              (Properties{{"fanCount", uint8_t{3}}, {"text", FanMap()}}));
}

TEST_F(GetAllProperties, TellsOfErrors)
{
    Ask("com.example.Nobody");
    Await(1);
    EXPECT_THAT(completions, ElementsAre(Failed()));
    EXPECT_THAT(All(),
                ElementsAre(Line(5, handling, "enter"),
                            Error(handling, "error name=[%s]",
                                  "error name=[org.freedesktop.DBus.Error.ServiceUnknown]"),
                            Error(handling, "error message=[%s]",
                                  "error message=[The name com.example.Nobody was not provided by "
                                  "any .service files]")));
    test::ClearLog();
    fans.On("GetAll").Once().ReplyError("com.example.Error.Broken", "so there");
    Ask(fanService, 9);
    Await(2);
    EXPECT_THAT(
        All(),
        ElementsAre(Line(5, handling, "enter"),
                    Error(handling, "error name=[%s]", "error name=[com.example.Error.Broken]"),
                    Error(handling, "error message=[%s]", "error message=[so there]"),
                    Error(handling, "ex: %s", "ex: from the callback")));
}

TEST_F(GetAllProperties, TellsOfRepliesThatCannotBeRead)
{
    fans.On("GetAll").Reply({kit::AsPropertyMap({{"fanCount", uint8_t{1}}}), 5});
    Ask(fanService);
    Await(1);
    EXPECT_TRUE(completions[0].success) << "more than is read does not matter";
    test::ClearLog();
    fans.On("GetAll").Reply({"no map"});
    Ask(fanService);
    Await(2);
    EXPECT_EQ(completions[1], Failed());
    const Lines lines = All();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_THAT(lines[1], testing::StartsWith(Error(handling, "ex: %s", "ex: sd_bus_message_")));
    EXPECT_EQ(lines[2], Line(5, handling, "leave"));
}

TEST_F(GetAllProperties, TellsAThrowingCallbackAgain)
{
    Ask(fanService, 1);
    Await(2);
    EXPECT_TRUE(completions[0].success);
    EXPECT_EQ(completions[1], Failed());
    EXPECT_THAT(All(), ElementsAre(Line(5, handling, "enter"), Line(5, handling, "results read ok"),
                                   Error(handling, "ex: %s", "ex: from the callback"),
                                   Line(5, handling, "leave")));
    Ask(fanService, 4);
    Await(4);
    EXPECT_EQ(completions[3], Failed());
}

TEST_F(GetAllProperties, ThrowsWhatCannotBeQueued)
{
    using namespace std::string_literals;
    const auto refused = [&](const std::string& service, const std::string& path,
                             const std::string& interface, int irv)
    {
        test::ClearLog();
        EXPECT_THAT([&] { Ask(service, 0, path, interface); },
                    testing::ThrowsMessage<std::runtime_error>(
                        "sd_bus_call_method_async returned an error"));
        EXPECT_EQ(alive.use_count(), 1);
        EXPECT_THAT(
            All(),
            ElementsAre(
                Error(queuing, "sd_bus_call_method_async returned an error, irv=%d",
                      "sd_bus_call_method_async returned an error, irv=" + std::to_string(irv)),
                Error(queuing, "ex: %s", "ex: sd_bus_call_method_async returned an error")));
    };
    refused("", fanPath, fanInterface, -EINVAL);
    refused("no name", fanPath, fanInterface, -EINVAL);
    refused(fanService, "no path", fanInterface, -EINVAL);
    refused(fanService, fanPath, "\xff", -EINVAL);
    refused(fanService, fanPath, "a\0b"s, -EINVAL);
    refused(fanService, fanPath + "\0b"s, fanInterface, -EINVAL);
    refused(fanService + "\0b"s, fanPath, fanInterface, -EINVAL);
    bus.Kill();
    EXPECT_FALSE(kit::DispatchPending(connection));
    refused(fanService, fanPath, fanInterface, -ENOTCONN);
    EXPECT_THAT(completions, IsEmpty());
}

// Nobody is told, but nothing is kept either.
TEST_F(GetAllProperties, EndsWithItsLastReference)
{
    sd_bus* own = nullptr;
    ASSERT_GE(sd_bus_open_system(&own), 0);
    {
        bmcbus::Bus bus_of_its_own(own);
        Async::Ops::GetAllProperties<Variant>(
            bus_of_its_own, fanService, fanPath, fanInterface,
            [token = alive](bool, Properties&, void*) { ADD_FAILURE() << "called"; }, nullptr);
        EXPECT_EQ(alive.use_count(), 2);
    }
    sd_bus_flush_close_unref(own);
    EXPECT_EQ(alive.use_count(), 1);
}

} // namespace
