// The event log is one method whose arguments hold an entry, partly as tagged items. The simulator
// serves the same.

#include <bmcbus/testing/fake_event_log.hpp>
#include <bmcbus/testing/text.hpp>

#include <stdexcept>
#include <tuple>

namespace bmcbus::testing
{
namespace
{

constexpr const char* description = R"xml(<node>
 <interface name="com.tamm.ovrik.wharfd.wharfd">
  <method name="NQRCE_REQ_TYPE_LOG_QZL_EVENT">
   <arg name="category" type="q" direction="in"/>
   <arg name="reserved1" type="u" direction="in"/>
   <arg name="agent" type="q" direction="in"/>
   <arg name="severity" type="q" direction="in"/>
   <arg name="reserved2" type="x" direction="in"/>
   <arg name="message_id" type="s" direction="in"/>
   <arg name="items" type="a(qs)" direction="in"/>
   <arg name="status" type="i" direction="out"/>
  </method>
 </interface>
</node>)xml";

enum Tag : uint16_t
{
    message = 2,
    concerned = 3,
    arguments = 6
};

int Digit(char digit)
{
    if (digit >= '0' && digit <= '9')
    {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f')
    {
        return digit - 'a' + 10;
    }
    throw std::invalid_argument("an argument block has lowercase hexadecimal digits only");
}

// The texts of an argument block: two hexadecimal digits a byte, a zero byte after each text and
// one more at the end.
std::vector<std::string> DecodeArguments(const std::string& block)
{
    std::string bytes;
    if (block.size() % 2 != 0)
    {
        throw std::invalid_argument("an argument block has two digits a byte");
    }
    for (size_t i = 0; i < block.size(); i += 2)
    {
        bytes += static_cast<char>(Digit(block[i]) * 16 + Digit(block[i + 1]));
    }
    if (bytes.size() < 2 || !bytes.ends_with(std::string(2, '\0')))
    {
        throw std::invalid_argument("an argument block ends in two zero bytes");
    }
    bytes.pop_back();
    std::vector<std::string> texts;
    for (size_t at = 0; at < bytes.size();)
    {
        const size_t end = bytes.find('\0', at);
        texts.push_back(bytes.substr(at, end - at));
        at = end + 1;
    }
    return texts;
}

void Take(EventLogEntry& entry, uint16_t tag, const std::string& text)
{
    switch (tag)
    {
        case message:
            entry.message = text;
            break;
        case concerned:
            entry.fqdd = text;
            break;
        case arguments:
            entry.arguments = DecodeArguments(text);
            break;
        default:
            throw std::invalid_argument("unknown tag " + std::to_string(tag));
    }
}

// In brackets. Arguments may be any bytes; the line is UTF-8 all the same.
std::string Shown(const std::string& text)
{
    return "[" + Printable(text, "\\") + "]";
}

} // namespace

std::string EventLogEntry::Text() const
{
    std::string line = "agent=" + std::to_string(agent) + " category=" + std::to_string(category) +
                       " severity=" + std::to_string(severity) + " id=" + Shown(id);
    line += message ? " message=" + Shown(*message) : "";
    line += fqdd ? " FQDD=" + Shown(*fqdd) : "";
    for (const std::string& argument : arguments)
    {
        line += " arg=" + Shown(argument);
    }
    return line;
}

EventLogEntry DecodeEventLogEntry(const Call& call)
{
    if (SignatureOf(call.arguments) != "quqqxsa(qs)")
    {
        throw std::invalid_argument("no entry of the event log: " + call.Arguments());
    }
    EventLogEntry entry{.category = call.arguments[0].Get<uint16_t>(),
                        .agent = call.arguments[2].Get<uint16_t>(),
                        .severity = call.arguments[3].Get<uint16_t>(),
                        .id = call.arguments[5].Get<std::string>(),
                        .message = {},
                        .fqdd = {},
                        .arguments = {}};
    using Items = std::vector<std::tuple<uint16_t, std::string>>;
    for (const auto& [tag, text] : call.arguments[6].Get<Items>())
    {
        Take(entry, tag, text);
    }
    return entry;
}

InterfaceDescription EventLogInterface()
{
    return ParseDescription(description, eventLogName).front();
}

void ServeEventLog(Service& service, const std::function<void(const EventLogEntry&)>& filed)
{
    bmcbus::testing::Object& object = service.AddObject(eventLogPath, {EventLogInterface()});
    object.OnCall(eventLogMethod,
                  [filed](const Call& call) -> std::vector<Value>
                  {
                      try
                      {
                          filed(DecodeEventLogEntry(call));
                      }
                      catch (const std::invalid_argument& refused)
                      {
                          throw CallError(SD_BUS_ERROR_INVALID_ARGS, refused.what());
                      }
                      return {0};
                  });
}

FakeEventLog::FakeEventLog() : FakeService({eventLogName})
{
    ServeEventLog(*this, [](const EventLogEntry&) {});
}

std::vector<EventLogEntry> FakeEventLog::Entries() const
{
    std::vector<EventLogEntry> entries;
    for (const Call& call : Calls(eventLogMethod))
    {
        try
        {
            entries.push_back(DecodeEventLogEntry(call));
        }
        catch (const std::invalid_argument&)
        {
            continue; // it was refused
        }
    }
    return entries;
}

Waited FakeEventLog::WaitForEntries(size_t count, std::chrono::milliseconds bound) const
{
    if (Until([&] { return Entries().size() >= count; }, bound))
    {
        return Waited();
    }
    const std::vector<EventLogEntry> entries = Entries();
    std::string instead =
        std::to_string(entries.size()) + " of " + std::to_string(count) + " entries";
    for (const EventLogEntry& entry : entries)
    {
        instead += "\n  " + entry.Text();
    }
    return Waited(instead);
}

} // namespace bmcbus::testing
