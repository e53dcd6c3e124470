#include "bus.hpp"

#include <cerrno>
#include <cstring>

namespace bmcbus
{

int Check(int result, const char* call)
{
    if (result < 0)
    {
        throw Error(-result, call);
    }
    return result;
}

BusRef DefaultBus()
{
    sd_bus* raw = nullptr;
    Check(sd_bus_default_system(&raw), "sd_bus_default_system");
    BusRef bus(raw);
    // Waits until a new connection is up, and tells a dead or inherited one from a working one.
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(raw, &name), "sd_bus_get_unique_name");
    return bus;
}

MessageRef NewCall(sd_bus* bus, const char* service, const char* path, const char* interface,
                   const char* member)
{
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_method_call(bus, &raw, service, path, interface, member),
          "sd_bus_message_new_method_call");
    return MessageRef(raw);
}

namespace
{

// Length of the UTF-8 sequence at the start of `s`, 0 when there is none.
size_t SequenceLength(const unsigned char* s, size_t left)
{
    const auto continues = [&](size_t at) { return at < left && (s[at] & 0xC0U) == 0x80U; };
    if (s[0] >= 0xC2 && s[0] <= 0xDF)
    {
        return continues(1) ? 2 : 0;
    }
    if (s[0] >= 0xE0 && s[0] <= 0xEF)
    {
        const bool overlong = s[0] == 0xE0 && left > 1 && s[1] < 0xA0;
        const bool surrogate = s[0] == 0xED && left > 1 && s[1] > 0x9F;
        return !overlong && !surrogate && continues(1) && continues(2) ? 3 : 0;
    }
    if (s[0] >= 0xF0 && s[0] <= 0xF4)
    {
        const bool overlong = s[0] == 0xF0 && left > 1 && s[1] < 0x90;
        const bool beyond = s[0] == 0xF4 && left > 1 && s[1] > 0x8F;
        return !overlong && !beyond && continues(1) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

} // namespace

bool IsBusText(std::string_view text)
{
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    size_t at = 0;
    while (at < text.size())
    {
        if (s[at] < 0x80)
        {
            if (s[at] == 0)
            {
                return false;
            }
            ++at;
            continue;
        }
        const size_t length = SequenceLength(s + at, text.size() - at);
        if (length == 0)
        {
            return false;
        }
        at += length;
    }
    return true;
}

int AppendText(sd_bus_message* message, const std::string& text)
{
    if (!IsBusText(text))
    {
        return -EINVAL;
    }
    return sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, text.c_str());
}

MessageRef Call(sd_bus* bus, sd_bus_message* call)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (sd_bus_call(bus, call, 0, &error, &reply) < 0)
    {
        throw Error(&error, "sd_bus_call");
    }
    sd_bus_error_free(&error);
    return MessageRef(reply);
}

} // namespace bmcbus
