// Entries of the event log as requests with a result. The older function, which writes lines
// instead, is in qzlog_via_dbus.cpp.

#include <bmcbus/event_log.hpp>

#include "bus/event_log_wire.hpp"

#include <tuple>

namespace bmcbus::event_log
{
namespace
{

using Items = std::vector<std::tuple<uint16_t, std::string>>;

void Add(Items& items, Tag tag, std::string text)
{
    if (!text.empty())
    {
        items.emplace_back(static_cast<uint16_t>(tag), std::move(text));
    }
}

} // namespace

Fate FateOf(const Result<int32_t>& result) noexcept
{
    if (result)
    {
        return Fate::Sent;
    }
    const CallError& error = result.error();
    const bool answered =
        error.kind == CallFailure::ReplyTypes ||
        (error.kind == CallFailure::Remote && !IsForeign(error.name, error.message));
    return answered ? Fate::Refused : Fate::Unreachable;
}

namespace detail
{

Request Log(sd_bus* bus, const Entry& entry) noexcept
{
    const bmcbus::detail::Destination daemon = {daemonService, daemonPath, daemonInterface,
                                                daemonMethod};
    return Request(bus, daemon)
        .Written(
            [&](sd_bus_message* call)
            {
                Items items;
                Add(items, Tag::message, entry.message);
                Add(items, Tag::fqdd, entry.FQDD);
                Add(items, Tag::arguments, entry.args.empty() ? "" : Encode(entry.args));
                using client::Append;
                Append(call, entry.category);
                Append(call, uint32_t{0});
                Append(call, entry.agentID);
                Append(call, entry.severity);
                Append(call, int64_t{0});
                Append(call, entry.messageID);
                Append(call, items);
            });
}

} // namespace detail
} // namespace bmcbus::event_log
