// The event log: what goes over the wire, and how each kind of answer shows in the log.

#include "log_recorder.hpp"

#include <bmcbus/testing.hpp>
#include <qzlog_via_dbus.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <thread>

using bmcbus::testing::FakeEventLog;
using bmcbus::testing::PrivateBus;
using bmcbus::testing::Value;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

using namespace std::string_literals;

constexpr const char* name = bmcbus::testing::eventLogName;
constexpr const char* path = bmcbus::testing::eventLogPath;
constexpr const char* method = bmcbus::testing::eventLogMethod;

std::string Line(int level, const std::string& text)
{
    return std::to_string(level) + " 300 qzlog_via_dbus.cpp Log: " + text + "\n";
}

std::string Information(std::initializer_list<std::string> texts)
{
    std::string lines;
    for (const std::string& text : texts)
    {
        lines += Line(5, text);
    }
    return lines;
}

class EventLog : public testing::Test
{
  protected:
    EventLog()
    {
        sd_bus_default_system(&connection);
        wrapped.emplace(connection);
        test::ClearLog();
    }

    ~EventLog() override
    {
        wrapped.reset();
        sd_bus_flush_close_unref(connection);
    }

    // Files an entry that the daemon gets or does not get, and gives the lines above information.
    std::string Failure(const std::string& messageID = "ID", const std::string& message = "",
                        const std::string& FQDD = "")
    {
        test::ClearLog();
        QZLogViaDbus::Log(*wrapped, 1, 2, 3, messageID, message, FQDD, {"a"});
        for (const test::LogLine& line : test::Log())
        {
            EXPECT_THAT(line.text, testing::Not(testing::StartsWith("method_status")));
            EXPECT_NE(line.text, "leave");
        }
        return test::Describe(test::Log(4));
    }

    // True when an entry reaches the daemon, on the connection that failures happened on.
    bool Works()
    {
        test::ClearLog();
        const size_t before = daemon.Calls(method).size();
        QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID");
        return daemon.Calls(method).size() == before + 1 &&
               test::CountLog(5, 300, "Log", "method_status=0") == 1;
    }

    std::string Received() const { return daemon.Calls(method).back().Arguments(); }

    PrivateBus bus;
    FakeEventLog daemon;
    sd_bus* connection = nullptr;
    std::optional<bmcbus::Bus> wrapped;
};

TEST_F(EventLog, SendsWhatIsThere)
{
    QZLogViaDbus::Log(*wrapped, 0xFFFF, 2, 3, "ID", "", "", {});
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 65535 3 0 "ID" 0)");
    const auto call = daemon.Calls(method).back();
    EXPECT_EQ(call.path, path);
    EXPECT_EQ(call.interface, name);
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "", "", "Fan.1", {});
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "" 1 3 "Fan.1")");
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID", "text", "Fan.1", {"ab", "c"});
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "ID" 3 2 "text" 3 "Fan.1" 6 "616200630000")");
    EXPECT_EQ(daemon.Entries().back().Text(),
              "agent=1 category=2 severity=3 id=[ID] message=[text] "
              "FQDD=[Fan.1] arg=[ab] arg=[c]");
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID", "", "", {""});
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "ID" 1 6 "0000")");
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID", "", "", {"\xE9\0\xFF"s, "", "\n"});
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "ID" 1 6 "e900ff00000a0000")");
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID", "text", "Fan.1");
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "ID" 2 2 "text" 3 "Fan.1")");
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID");
    EXPECT_EQ(Received(), R"(quqqxsa(qs) 2 0 1 3 0 "ID" 0)");
}

TEST_F(EventLog, TellsWhatItDoes)
{
    daemon.On(method).Reply({int32_t{-7}});
    QZLogViaDbus::Log(*wrapped, 65535, 2, 3, "ID", "m", "f", {"ab", "\xE9"});
    EXPECT_EQ(test::Describe(test::Log()),
              Information({"enter", "agentID=65535", "category=2", "severity=3", "messageID=[ID]",
                           "message=[m]", "FQDD=[f]", "arg=[ab]", "arg=[\xE9]", "message=[m]",
                           "FQDD=[f]", "arg=[ab]", "c=[a]", "c=[b]", "arg=[\xE9]", "c=[\xE9]",
                           "margs=[616200e90000]", "method_status=-7", "leave"}));
    test::ClearLog();
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID");
    EXPECT_EQ(test::Describe(test::Log()),
              Information({"enter", "enter", "enter", "agentID=1", "category=2", "severity=3",
                           "messageID=[ID]", "message=[]", "FQDD=[]", "method_status=-7", "leave",
                           "leave", "leave"}));
    EXPECT_EQ(test::LogOf("%s.%d.%s: method_status=%d").size(), 1U);
}

TEST_F(EventLog, DistinguishesAnAnswerThatIsAnError)
{
    using Error = std::pair<std::string, std::string>;
    for (const auto& [error, text] : {
             Error("com.example.Error.Full", "the log is full"),
             Error("org.freedesktop.DBus.Error.Failed", "no"),
             Error("org.freedesktop.DBus.Error.AccessDenied", "Permission denied"),
             Error("org.freedesktop.DBus.Error.AccessDenied", "Access to x.Y() not permitted."),
             Error("org.freedesktop.DBus.Error.LimitsExceeded", "the log is full"),
             Error("org.freedesktop.DBus.Error.NoReply", "the disk does not answer"),
             Error("org.freedesktop.DBus.Error.Timeout", "the disk does not answer"),
             Error("org.freedesktop.DBus.Error.UnknownMethod", "what?"),
             Error("org.freedesktop.DBus.Error.Disconnected", "from the disk"),
             Error("System.Error.EIO", "Input/output error"),
         })
    {
        daemon.On(method).ReplyError(error, text);
        EXPECT_EQ(Failure(), Line(1, "reply is an error")) << error;
    }
    daemon.Heal();
    daemon.RemoveObject(path); // the daemon's connection itself knows no such object any more
    EXPECT_EQ(Failure(), Line(1, "reply is an error"));
}

TEST_F(EventLog, TellsOfAnswersOfOtherTypes)
{
    for (const auto& values : std::vector<std::vector<Value>>{
             {}, {"text"}, {uint32_t{1}}, {std::vector<int32_t>{1}}, {Value::Variant(int32_t{1})}})
    {
        daemon.On(method).Reply(values);
        EXPECT_EQ(Failure(),
                  Line(1,
                       "exception: sd_bus_message_read_basic fundamental: System.Error.ENXIO: No "
                       "such device or address\n"))
            << bmcbus::testing::TextOf(values);
    }
    daemon.On(method).Reply({int32_t{3}, "more than asked for"});
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "ID");
    EXPECT_EQ(test::CountLog(5, 300, "Log", "method_status=3"), 1U);
}

TEST_F(EventLog, TellsWhenThereIsNoDaemon)
{
    daemon.ReleaseName(name);
    EXPECT_EQ(Failure(), Line(1, "exception: sd_bus_call: org.freedesktop.DBus.Error."
                                 "ServiceUnknown: The name com.tamm.ovrik.wharfd.wharfd was not "
                                 "provided by any .service files\n"));
    daemon.RequestName(name);
    EXPECT_TRUE(Works());
}

TEST_F(EventLog, TellsWhenTheConnectionIsLost)
{
    daemon.On(method).Hold();
    std::thread killer(
        [this]
        {
            daemon.WaitForHeld();
            bus.Kill();
        });
    EXPECT_THAT(Failure(), HasSubstr("exception: sd_bus_call: org.freedesktop.DBus.Error."));
    killer.join();
    EXPECT_THAT(Failure(), HasSubstr("exception: sd_bus_")); // and from then on
    bmcbus::Bus none(nullptr);
    test::ClearLog();
    QZLogViaDbus::Log(none, 1, 2, 3, "ID");
    EXPECT_EQ(test::Describe(test::Log(4)),
              Line(1, "exception: sd_bus_message_new_method_call: System.Error.ENOTCONN: Transport "
                      "endpoint is not connected\n"));
}

TEST_F(EventLog, SendsNoTextThatMayNotTravel)
{
    for (const std::string& text : {"\xC3"s, "a\0b"s, "\xFF\x80"s, "\xED\xA0\x80"s})
    {
        const std::string refused =
            Line(1, "exception: sd_bus_message_append_basic: org.freedesktop.DBus.Error."
                    "InvalidArgs: Invalid argument\n");
        EXPECT_EQ(Failure(text), refused);
        EXPECT_EQ(Failure("ID", text), refused);
        EXPECT_EQ(Failure("ID", "", text), refused);
    }
    EXPECT_THAT(daemon.Calls(method), IsEmpty());
    EXPECT_TRUE(Works());
    QZLogViaDbus::Log(*wrapped, 1, 2, 3, "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80");
    EXPECT_THAT(Received(), EndsWith("\"\xC3\xA9\" 2 2 \"\xE2\x82\xAC\" 3 \"\xF0\x9F\x98\x80\""));
}

} // namespace
