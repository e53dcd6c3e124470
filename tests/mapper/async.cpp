// The object mapper asked without waiting, and what becomes of requests that lose their
// connection.

#include "faults.hpp"
#include "fixture.hpp"

#include <cerrno>
#include <optional>
#include <stdexcept>

using namespace ObjectMapper::Wrappers;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::ThrowsMessage;

namespace
{

using namespace std::string_literals;

// What callbacks were told, whichever kind they are.
struct Answer
{
    bool success = false;
    std::optional<bool> timedOut;
    Services services;
    std::string service;
};

struct Listener
{
    std::vector<Answer> answers;
    size_t throwFirst = 0; // the first so many calls throw

    void Hear(Answer answer)
    {
        answers.push_back(std::move(answer));
        if (answers.size() <= throwFirst)
        {
            throw std::runtime_error("callback " + std::to_string(answers.size()));
        }
    }
};

Listener& Of(void* context)
{
    return *static_cast<Listener*>(context);
}

void OnObject(bool success, ServiceMap& services, void* context)
{
    Of(context).Hear({success, {}, std::move(services), {}});
}

void OnObject2(bool success, bool timedOut, ServiceMap& services, void* context)
{
    Of(context).Hear({success, timedOut, std::move(services), {}});
}

void OnService(bool success, std::string& service, void* context)
{
    Of(context).Hear({success, {}, {}, std::move(service)});
}

void OnService2(bool success, bool timedOut, std::string& service, void* context)
{
    Of(context).Hear({success, timedOut, {}, std::move(service)});
}

// The six requests, called alike for one interface.
struct Request
{
    const char* name;    // of the function that the caller calls
    const char* queued;  // of the one that queues it
    const char* handler; // of the one that takes the reply
    bool takesConnection;
    bool tellsTimeouts;
    bool tellsService;
    void (*queue)(sd_bus*, const std::string& path, const std::string& interface, void* context);
};

bmcbus::Bus Wrapped(sd_bus* connection)
{
    return bmcbus::Bus(connection);
}

constexpr const char* handler1 = "Internal_GetObjectAsync_Callback";
constexpr const char* handler2 = "Internal_GetObjectAsync_Callback2";

const Request requests[] = {
    {"GetObjectAsync", "GetObjectAsync", handler1, true, false, false,
     [](sd_bus* bus, const std::string& path, const std::string& interface, void* context)
     {
         bmcbus::Bus wrapped = Wrapped(bus);
         GetObjectAsync(wrapped, path, {interface}, OnObject, context);
     }},
    {"GetObjectAsync", "GetObjectAsync", handler1, false, false, false,
     [](sd_bus*, const std::string& path, const std::string& interface, void* context)
     { GetObjectAsync(path, {interface}, OnObject, context); }},
    {"GetObjectAsync2", "GetObjectAsync2", handler2, true, true, false,
     [](sd_bus* bus, const std::string& path, const std::string& interface, void* context)
     {
         bmcbus::Bus wrapped = Wrapped(bus);
         GetObjectAsync2(wrapped, path, {interface}, OnObject2, context);
     }},
    {"GetObjectAsync2", "GetObjectAsync2", handler2, false, true, false,
     [](sd_bus*, const std::string& path, const std::string& interface, void* context)
     { GetObjectAsync2(path, {interface}, OnObject2, context); }},
    {"PathAndInterfaceToServiceAsync", "GetObjectAsync", handler1, false, false, true,
     [](sd_bus*, const std::string& path, const std::string& interface, void* context)
     { PathAndInterfaceToServiceAsync(path, interface, OnService, context); }},
    {"PathAndInterfaceToServiceAsync2", "GetObjectAsync2", handler2, false, true, true,
     [](sd_bus*, const std::string& path, const std::string& interface, void* context)
     { PathAndInterfaceToServiceAsync2(path, interface, OnService2, context); }},
};

class MapperAsync : public MapperTest
{
  protected:
    // Queues one request and dispatches until the callback was called `calls` times; then waits for
    // more that must not come.
    Listener Ask(const Request& request, size_t calls = 1, size_t throwFirst = 0)
    {
        SCOPED_TRACE(request.name);
        test::ClearLog();
        Listener listener;
        listener.throwFirst = throwFirst;
        request.queue(connection, "/p", "x.I", &listener);
        EXPECT_THAT(listener.answers, IsEmpty());
        EXPECT_TRUE(Dispatch(connection, [&] { return listener.answers.size() >= calls; }));
        EXPECT_TRUE(bmcbus::testing::DispatchPending(connection));
        EXPECT_THAT(listener.answers, SizeIs(calls));
        return listener;
    }

    static void ExpectFailure(const Request& request, const Answer& answer, bool timedOut)
    {
        SCOPED_TRACE(request.name);
        EXPECT_FALSE(answer.success);
        EXPECT_EQ(answer.timedOut,
                  request.tellsTimeouts ? std::optional<bool>(timedOut) : std::nullopt);
        EXPECT_THAT(answer.services, IsEmpty());
        EXPECT_EQ(answer.service, "");
    }

    void ExpectFailure(const Request& request, bool timedOut)
    {
        ExpectFailure(request, Ask(request).answers.at(0), timedOut);
    }
};

TEST_F(MapperAsync, AnswersReachTheCallback)
{
    const Services services = {{"a.svc", {"z.I", "x.I"}}, {"b.svc", {"x.I"}}};
    mapper.On("GetObject")
        .Reply({Value::Dictionary("s", "as",
                                  {{"b.svc", Names{"x.I"}},
                                   {"a.svc", Names{"z.I", "x.I"}},
                                   {"b.svc", Names{"ignored"}}})});
    for (const Request& request : requests)
    {
        mapper.ClearCalls();
        const Answer answer = Ask(request).answers.at(0);
        EXPECT_TRUE(answer.success);
        EXPECT_EQ(answer.timedOut,
                  request.tellsTimeouts ? std::optional<bool>(false) : std::nullopt);
        EXPECT_EQ(answer.services, request.tellsService ? Services() : services);
        EXPECT_EQ(answer.service, request.tellsService ? "a.svc" : "");
        const auto calls = mapper.Calls();
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls.at(0).path, "/xyz/openbmc_project/object_mapper");
        EXPECT_EQ(calls.at(0).interface, "xyz.openbmc_project.ObjectMapper");
        EXPECT_EQ(calls.at(0).Arguments(), R"(sas "/p" 1 "x.I")");
        EXPECT_EQ(Logged(), !request.tellsTimeouts
                                ? ""
                                : Line(5, handler2, "results service=[a.svc]") +
                                      Line(5, handler2, "results interface=[z.I]") +
                                      Line(5, handler2, "results interface=[x.I]") +
                                      Line(5, handler2, "results service=[b.svc]") +
                                      Line(5, handler2, "results interface=[x.I]"));
    }
}

TEST_F(MapperAsync, ServiceWithoutANameIsPassedOver)
{
    for (const auto& [services, chosen] : std::vector<std::pair<Services, std::string>>{
             {{{"", {"x.I"}}, {"b.svc", {}}}, "b.svc"}, {{{"", {"x.I"}}}, ""}, {{}, ""}})
    {
        mapper.On("GetObject").Reply({services});
        for (const Request& request : requests)
        {
            if (request.tellsService)
            {
                const Answer answer = Ask(request).answers.at(0);
                EXPECT_EQ(answer.success, !chosen.empty());
                EXPECT_EQ(answer.service, chosen);
                EXPECT_FALSE(answer.timedOut.value_or(false));
            }
        }
    }
}

TEST_F(MapperAsync, ErrorRepliesAreFailures)
{
    mapper.On("GetObject").ReplyError("com.example.Error.Broken", "it broke");
    for (const Request& request : requests)
    {
        ExpectFailure(request, false);
        EXPECT_EQ(Logged(), Line(2, request.handler, "error name=[com.example.Error.Broken]") +
                                Line(2, request.handler, "error message=[it broke]"));
    }
}

TEST_F(MapperAsync, TimeoutsAreToldApart)
{
    struct Case
    {
        const char* error;
        bool timedOut;
    };
    for (const Case& c : {Case{"org.freedesktop.DBus.Error.Timeout", true},
                          Case{"org.freedesktop.DBus.Error.Timeouts", false},
                          Case{"org.freedesktop.DBus.Error.Timeou", false},
                          Case{"org.freedesktop.DBus.Error.NoReply", false}})
    {
        SCOPED_TRACE(c.error);
        mapper.On("GetObject").ReplyError(c.error, "at once");
        for (const Request& request : requests)
        {
            ExpectFailure(request, c.timedOut);
        }
    }
    mapper.On("GetObject").NoReply();
    sd_bus_set_method_call_timeout(connection, 50'000);
    for (const Request& request : requests)
    {
        ExpectFailure(request, true); // the connection's own
        EXPECT_THAT(Logged(),
                    EndsWith(Line(2, request.handler, "error message=[Method call timed out]")));
    }
}

TEST_F(MapperAsync, AnswersOfOtherTypesAreFailures)
{
    for (const auto& values :
         std::vector<std::vector<Value>>{{}, {"text"}, {Tree{{"/x", {{"a", {"b"}}}}}}})
    {
        mapper.On("GetObject").Reply(values);
        for (const Request& request : requests)
        {
            ExpectFailure(request, false);
            EXPECT_THAT(Logged(), testing::StartsWith("2 300 object_mapper.cpp "s +
                                                      request.handler + ": ex: sd_bus_message_"));
            EXPECT_EQ(test::Log().size(), 1U);
        }
    }
}

TEST_F(MapperAsync, CallbackThatThrowsIsToldOfAFailure)
{
    mapper.On("GetObject").Reply({Services{{"a.svc", {}}}});
    for (const Request& request : requests)
    {
        const std::string catcher = !request.tellsService ? request.handler
                                    : request.tellsTimeouts
                                        ? "Internal_PathAndInterfaceToServiceAsync_Callback2"
                                        : "Internal_PathAndInterfaceToServiceAsync_Callback";
        Listener listener = Ask(request, 2, 1);
        EXPECT_TRUE(listener.answers.at(0).success);
        ExpectFailure(request, listener.answers.at(1), false);
        EXPECT_EQ(test::Describe(test::Log(2)), Line(2, catcher, "ex: callback 1"));

        listener = Ask(request, 2, 2); // and throws again
        ExpectFailure(request, listener.answers.at(1), false);
        EXPECT_EQ(test::Describe(test::Log(2)),
                  Line(2, catcher, "ex: callback 1") + Line(2, catcher, "ex: callback 2"));
    }
    mapper.On("GetObject").ReplyError("com.example.Error.Broken");
    for (const Request& request : requests)
    {
        ExpectFailure(request, Ask(request, 1, 1).answers.at(0), false);
        EXPECT_THAT(Logged(), EndsWith("ex: callback 1\n"));
    }
}

// The lines of a request that could not be queued, and its exception.
void ExpectRefused(const Request& request, const std::string& step, const std::string& text,
                   sd_bus* connection, const std::string& path = "/p",
                   const std::string& interface = "x.I")
{
    SCOPED_TRACE(request.name);
    test::ClearLog();
    Listener listener;
    EXPECT_THAT([&] { request.queue(connection, path, interface, &listener); },
                ThrowsMessage<std::runtime_error>(text));
    const auto shown = [](const std::string& whole) // up to the first zero
    { return whole.substr(0, whole.find('\0')); };
    std::string lines = step.empty() ? "" : Line(2, request.queued, step);
    lines += Line(2, request.queued, "ex: " + text) +
             Line(2, request.queued, " path: " + shown(path)) +
             Line(2, request.queued, " interface: " + shown(interface));
    if (request.tellsService)
    {
        lines +=
            Line(2, request.name, "ex: " + text) + Line(2, request.name, " path: " + shown(path));
    }
    EXPECT_EQ(test::Describe(test::Log()), lines);
    EXPECT_THAT(listener.answers, IsEmpty());
}

TEST_F(MapperAsync, EachStepThatFailsIsNamed)
{
    for (const Request& request : requests)
    {
        for (const char* step : {"sd_bus_message_new_method_call", "sd_bus_message_append",
                                 "sd_bus_message_open_container", "sd_bus_message_close_container",
                                 "sd_bus_call_async"})
        {
            const Failing failing(step);
            ExpectRefused(request, step + " returned an error, irv=-12"s,
                          step + " returned an error"s, connection);
        }
        const FailingSilently failing;
        ExpectRefused(request, "sd_bus_message_new_method_call returned a NULL message",
                      "d_bus_message_new_method_call returned a NULL message", connection);
    }
    EXPECT_THAT(mapper.Calls(), IsEmpty());
}

TEST_F(MapperAsync, TextThatMayNotTravelIsNotSent)
{
    for (const Request& request : requests)
    {
        for (const std::string& text : {"/\xC3"s, "/a\0b"s})
        {
            const std::string line = "sd_bus_message_append returned an error, irv=-22";
            const std::string exception = "sd_bus_message_append returned an error";
            ExpectRefused(request, line, exception, connection, text);
            ExpectRefused(request, line, exception, connection, "/p", text);
        }
        mapper.On("GetObject").Reply({Services{{"a.svc", {}}}});
        EXPECT_TRUE(Ask(request).answers.at(0).success);
    }
}

TEST_F(MapperAsync, ConnectionThatIsNotThereIsRefused)
{
    const auto refuse = [&](const Request& request, const std::string& step, int irv)
    {
        const std::string text = step + " returned an error";
        ExpectRefused(request, text + ", irv=" + std::to_string(irv), text, connection);
    };
    sd_bus_close(connection);
    for (const Request& request : requests)
    {
        if (!request.takesConnection)
        {
            refuse(request, "sd_bus_call_async", -ENOTCONN);
        }
    }
    connection = sd_bus_unref(connection);
    refuse(requests[0], "sd_bus_message_new_method_call", -ENOTCONN);
    bus.Kill();
    for (const Request& request : requests)
    {
        if (!request.takesConnection)
        {
            refuse(request, "sd_bus_default_system", -ECONNREFUSED);
        }
    }
}

TEST_F(MapperAsync, ConnectionThatEndsDropsItsRequests)
{
    mapper.On("GetObject").NoReply();
    Listener listener;
    for (const Request& request : requests)
    {
        request.queue(connection, "/p", "x.I", &listener);
    }
    sd_bus_flush(connection);
    EXPECT_TRUE(mapper.WaitForCalls("GetObject", std::size(requests)));
    connection = sd_bus_flush_close_unref(connection);
    for (const Request& request : requests)
    {
        if (!request.takesConnection)
        {
            request.queue(nullptr, "/p", "x.I", &listener); // goes with a connection of its own
        }
    }
    EXPECT_THAT(listener.answers, IsEmpty());
}

} // namespace
