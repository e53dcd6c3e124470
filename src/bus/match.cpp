// Subscribing to signals: the match rule, and the wait for the daemon to accept it.

#include "bus/match.hpp"

#include "bus/call_hub.hpp"
#include "bus/message_size.hpp"
#include "bus/signal_shield.hpp"
#include "bus/text.hpp"

#include <cerrno>

namespace bmcbus::client
{

std::string SignalRule(const char* member, const std::string& path, const char* interface)
{
    std::string rule = "type='signal',member='";
    rule.append(member).append("',path='").append(path).append("',");
    if (interface != nullptr)
    {
        rule.append("interface='").append(interface).append("',");
    }
    return rule;
}

int AddMatch(sd_bus* bus, const std::string& rule, sd_bus_message_handler_t handler,
             void* user_data, Slot& slot)
{
    if (!IsBusText(rule))
    {
        return -EINVAL;
    }
    if (!Fits(rule.size()))
    {
        return -EMSGSIZE;
    }
    sd_bus_slot* raw = nullptr;
    const int result = [&]
    {
        const SignalShield shield;
        return sd_bus_add_match(bus, &raw, rule.c_str(), handler, user_data);
    }();
    if (result >= 0)
    {
        slot.reset(raw);
    }
    detail::RingForQueued(bus);
    return result;
}

} // namespace bmcbus::client
