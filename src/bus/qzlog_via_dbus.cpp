// Writes an entry of the event log and waits for the daemon's answer. Every step, and whether the
// daemon or only the bus answered, is told in the log.

#include <qzlog_via_dbus.hpp>

#include "bus/bus.hpp"
#include "bus/deadline.hpp"
#include "bus/event_log_wire.hpp"
#include "log.hpp"

#include <bmcbus/wire.hpp>

#include <cstdint>
#include <exception>
#include <string_view>

namespace QZLogViaDbus
{
namespace
{

using bmcbus::client::Append;
using namespace bmcbus::event_log;

struct Tagged
{
    Tag tag;
    const std::string* text;
};

struct Entry
{
    uint16_t agentID;
    uint16_t category;
    uint16_t severity;
    const std::string& messageID;
    const std::string& message;
    const std::string& FQDD;
    const std::vector<std::string>& args;
};

// Lines of this source are the public function's.
#define LOG_FOR_CALLER(level, text, ...)                                                           \
    BMCBUS_LOG_AS(level, bmcbus::log::librarySource, "Log", text __VA_OPT__(, ) __VA_ARGS__)

void LogEntry(const Entry& entry)
{
    LOG_FOR_CALLER(info, "agentID=%u", unsigned{entry.agentID});
    LOG_FOR_CALLER(info, "category=%u", unsigned{entry.category});
    LOG_FOR_CALLER(info, "severity=%u", unsigned{entry.severity});
    LOG_FOR_CALLER(info, "messageID=[%s]", entry.messageID.c_str());
    LOG_FOR_CALLER(info, "message=[%s]", entry.message.c_str());
    LOG_FOR_CALLER(info, "FQDD=[%s]", entry.FQDD.c_str());
    for (const std::string& arg : entry.args)
    {
        LOG_FOR_CALLER(info, "arg=[%s]", arg.c_str());
    }
}

std::string EncodeForCaller(const std::vector<std::string>& args)
{
    for (const std::string& arg : args)
    {
        LOG_FOR_CALLER(info, "arg=[%s]", arg.c_str());
        for (const char c : arg)
        {
            LOG_FOR_CALLER(info, "c=[%c]", c);
        }
    }
    std::string block = Encode(args);
    LOG_FOR_CALLER(info, "margs=[%s]", block.c_str());
    return block;
}

// The parts that are there. `block` holds the encoded arguments for them.
std::vector<Tagged> TaggedItems(const Entry& entry, std::string& block)
{
    std::vector<Tagged> items;
    if (!entry.message.empty())
    {
        LOG_FOR_CALLER(info, "message=[%s]", entry.message.c_str());
        items.push_back({Tag::message, &entry.message});
    }
    if (!entry.FQDD.empty())
    {
        LOG_FOR_CALLER(info, "FQDD=[%s]", entry.FQDD.c_str());
        items.push_back({Tag::fqdd, &entry.FQDD});
    }
    if (!entry.args.empty())
    {
        block = EncodeForCaller(entry.args);
        items.push_back({Tag::arguments, &block});
    }
    return items;
}

void AppendItems(sd_bus_message* call, const std::vector<Tagged>& items)
{
    using bmcbus::client::Close;
    using bmcbus::client::Open;
    Open(call, SD_BUS_TYPE_ARRAY, "(qs)");
    for (const Tagged& item : items)
    {
        Open(call, SD_BUS_TYPE_STRUCT, "qs");
        Append(call, static_cast<uint16_t>(item.tag));
        Append(call, *item.text);
        Close(call);
    }
    Close(call);
}

bmcbus::MessageRef Request(sd_bus* bus, const Entry& entry, const std::vector<Tagged>& items)
{
    bmcbus::MessageRef call =
        bmcbus::NewCall(bus, daemonService, daemonPath, daemonInterface, daemonMethod);
    Append(call.get(), entry.category);
    Append(call.get(), uint32_t{0});
    Append(call.get(), entry.agentID);
    Append(call.get(), entry.severity);
    Append(call.get(), int64_t{0});
    Append(call.get(), entry.messageID);
    AppendItems(call.get(), items);
    return call;
}

std::string_view View(const char* text)
{
    return text == nullptr ? std::string_view() : text;
}

// Whether a failed call was answered by the service it went to. sd-bus keeps the sender of an error
// reply to itself, so this looks at everything else there is.
bool WasAnswered(sd_bus* bus, sd_bus_message* call, const sd_bus_error& error,
                 const bmcbus::Deadline& deadline)
{
    uint64_t cookie = 0;
    const bool sent = sd_bus_message_get_cookie(call, &cookie) >= 0;
    if (!sent || sd_bus_is_open(bus) <= 0 || sd_bus_error_is_set(&error) == 0)
    {
        return false;
    }
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_TIMEOUT) != 0)
    {
        return !deadline.Passed();
    }
    return !IsForeign(View(error.name), View(error.message));
}

// Sends the request. Null for an answer that is an error; throws Error when there is no answer.
bmcbus::MessageRef Ask(sd_bus* bus, sd_bus_message* call)
{
    const bmcbus::Deadline deadline(bus);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    bmcbus::MessageRef reply;
    const int result = bmcbus::Exchange(bus, call, error, reply);
    if (result >= 0)
    {
        return sd_bus_message_is_method_error(reply.get(), nullptr) > 0 ? nullptr
                                                                        : std::move(reply);
    }
    if (WasAnswered(bus, call, error, deadline))
    {
        sd_bus_error_free(&error);
        return nullptr;
    }
    if (sd_bus_error_is_set(&error) == 0)
    {
        throw bmcbus::Error(-result, "sd_bus_call");
    }
    throw bmcbus::Error(&error, "sd_bus_call");
}

int32_t ReadStatus(sd_bus_message* reply)
{
    int32_t status = 0;
    bmcbus::client::Read(reply, status);
    return status;
}

} // namespace

void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category, unsigned short severity,
         const std::string& messageID, const std::string& message, const std::string& FQDD,
         const std::vector<std::string>& args)
try
{
    const Entry entry{agentID, category, severity, messageID, message, FQDD, args};
    BMCBUS_LOG(info, "enter");
    LogEntry(entry);
    std::string block;
    const std::vector<Tagged> items = TaggedItems(entry, block);
    sd_bus* connection = bmcbus::Connection(bus);
    const bmcbus::MessageRef call = Request(connection, entry, items);
    const bmcbus::MessageRef reply = Ask(connection, call.get());
    if (!reply)
    {
        BMCBUS_LOG(failure, "reply is an error");
        return;
    }
    BMCBUS_LOG(info, "method_status=%d", ReadStatus(reply.get()));
    BMCBUS_LOG(info, "leave");
}
catch (const std::exception& e)
{
    BMCBUS_LOG(failure, "exception: %s\n", e.what());
}

void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category, unsigned short severity,
         const std::string& messageID, const std::string& message, const std::string& FQDD)
{
    BMCBUS_LOG(info, "enter");
    Log(bus, agentID, category, severity, messageID, message, FQDD, {});
    BMCBUS_LOG(info, "leave");
}

void Log(bmcbus::Bus& bus, unsigned short agentID, unsigned short category, unsigned short severity,
         const std::string& messageID)
{
    BMCBUS_LOG(info, "enter");
    Log(bus, agentID, category, severity, messageID, "", "");
    BMCBUS_LOG(info, "leave");
}

} // namespace QZLogViaDbus
