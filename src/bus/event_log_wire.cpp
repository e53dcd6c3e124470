// The encoding of arguments that the event-log daemon expects, and the errors that are not its
// own.

#include "bus/event_log_wire.hpp"

#include <algorithm>
#include <array>

namespace bmcbus::event_log
{
namespace
{

void AppendHex(std::string& block, unsigned char byte)
{
    constexpr const char* digits = "0123456789abcdef";
    block += digits[byte >> 4U];
    block += digits[byte & 0xFU];
}

// How errors begin that do not come from the called service: the bus's own, and sd-bus's about a
// reply. Names that services use as well are followed by the text.
struct ForeignError
{
    std::string_view name;
    std::string_view text;
};

constexpr std::array foreignErrors = {
    ForeignError{"org.freedesktop.DBus.Error.ServiceUnknown", ""},
    ForeignError{"org.freedesktop.DBus.Error.NameHasNoOwner", ""},
    ForeignError{"org.freedesktop.DBus.Error.Spawn.", ""},
    ForeignError{"org.freedesktop.DBus.Error.TimedOut", ""}, // while being started
    ForeignError{"org.freedesktop.systemd1.", ""},           // asked to start it
    ForeignError{"org.freedesktop.DBus.Error.NoReply", "Message recipient disconnected"},
    ForeignError{"org.freedesktop.DBus.Error.NoReply", "Message did not receive a reply"},
    ForeignError{"org.freedesktop.DBus.Error.NoReply", "Remote peer disconnected"},
    ForeignError{"org.freedesktop.DBus.Error.AccessDenied", "Rejected "},
    ForeignError{"org.freedesktop.DBus.Error.AccessDenied", "An AppArmor policy prevents"},
    ForeignError{"org.freedesktop.DBus.Error.AccessDenied", "An SELinux policy prevents"},
    ForeignError{"org.freedesktop.DBus.Error.AccessDenied", "Sender is not authorized"},
    ForeignError{"org.freedesktop.DBus.Error.LimitsExceeded", "Rejected: "},
    ForeignError{"org.freedesktop.DBus.Error.LimitsExceeded", "The maximum number of "},
    ForeignError{"org.freedesktop.DBus.Error.InconsistentMessage", "Reply message contained file"},
    ForeignError{"System.Error.ELOOP", ""}, // the service is on the caller's own connection
};

} // namespace

std::string Encode(const std::vector<std::string>& args)
{
    std::string block;
    size_t bytes = 1;
    for (const std::string& arg : args)
    {
        bytes += arg.size() + 1;
    }
    block.reserve(2 * bytes);
    for (const std::string& arg : args)
    {
        for (const char c : arg)
        {
            AppendHex(block, static_cast<unsigned char>(c));
        }
        AppendHex(block, 0);
    }
    AppendHex(block, 0);
    return block;
}

bool IsForeign(std::string_view name, std::string_view message)
{
    return std::any_of(foreignErrors.begin(), foreignErrors.end(),
                       [&](const ForeignError& f)
                       { return name.starts_with(f.name) && message.starts_with(f.text); });
}

} // namespace bmcbus::event_log
