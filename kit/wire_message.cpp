// From a message of sd-bus to a plain value, and from that to the text that tests show.

#include "wire_message.hpp"

#include "check.hpp"

namespace bmcbus::testing
{
namespace
{

const char* TypeName(uint8_t type)
{
    switch (type)
    {
        case SD_BUS_MESSAGE_METHOD_CALL:
            return "method_call";
        case SD_BUS_MESSAGE_METHOD_RETURN:
            return "method_return";
        case SD_BUS_MESSAGE_METHOD_ERROR:
            return "error";
        default:
            return "signal";
    }
}

} // namespace

WireMessage Decode(sd_bus_message* message)
{
    const auto text = [](const char* maybe) { return std::string(maybe == nullptr ? "" : maybe); };
    WireMessage wire;
    uint8_t type = 0;
    Check(sd_bus_message_get_type(message, &type), "sd_bus_message_get_type");
    wire.type = TypeName(type);
    wire.sender = text(sd_bus_message_get_sender(message));
    wire.destination = text(sd_bus_message_get_destination(message));
    wire.path = text(sd_bus_message_get_path(message));
    wire.interface = text(sd_bus_message_get_interface(message));
    wire.member = text(sd_bus_message_get_member(message));
    if (const sd_bus_error* error = sd_bus_message_get_error(message))
    {
        wire.errorName = text(error->name);
    }
    sd_bus_message_get_cookie(message, &wire.serial);
    sd_bus_message_get_reply_cookie(message, &wire.replyTo);
    wire.wantsReply =
        type == SD_BUS_MESSAGE_METHOD_CALL && sd_bus_message_get_expect_reply(message) > 0;
    wire.values = Value::ReadAll(message);
    return wire;
}

std::string WireMessage::Text() const
{
    std::string text = type + " " + sender + " > " + (destination.empty() ? "*" : destination);
    text += path.empty() ? "" : " " + path + " " + interface + "." + member;
    text += errorName.empty() ? "" : " " + errorName;
    return text + " " + Body();
}

} // namespace bmcbus::testing
