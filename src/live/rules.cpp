// The texts of the match rules. Every rule names its interface: daemons sort rules by it and look
// at no others.

#include "live/rules.hpp"

#include "live/hub.hpp"
#include "log.hpp"

namespace bmcbus::live
{
namespace
{

constexpr const char* properties =
    "type='signal',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',";
constexpr const char* manager = "type='signal',interface='org.freedesktop.DBus.ObjectManager',";

} // namespace

std::string OwnerRule(const std::string& name)
{
    return "type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
           "sender='org.freedesktop.DBus',arg0='" +
           name + "'";
}

std::string PathChangesRule(const std::string& path)
{
    return properties + ("path='" + path + "'");
}

std::string SignalRule(const std::string& path, const char* interface, const char* member)
{
    return std::string("type='signal',interface='") + interface + "',member='" + member +
           "',path='" + path + "'";
}

std::string PathManagerRule(const std::string& path)
{
    return manager + ("arg0path='" + path + "'");
}

// Of everything below `root`, not of the object at it.
std::string BelowManagerRule(const std::string& root)
{
    return manager + ("arg0path='" + (root == "/" ? root : root + "/") + "'");
}

std::string ServiceChangesRule(const std::string& name, const char* interface)
{
    return properties + ("sender='" + name + "',arg0='" + interface + "'");
}

std::string ServiceManagerRule(const std::string& name)
{
    return manager + ("sender='" + name + "'");
}

Rule* Rules::Use(const std::string& text)
{
    const auto [at, fresh] = rules_.try_emplace(text);
    Rule& rule = at->second;
    rule.rules_ = this;
    rule.text_ = &at->first;
    ++rule.uses_;
    if (fresh || rule.refused())
    {
        Send(rule);
    }
    return &rule;
}

void Rules::Drop(Rule*& rule)
{
    Rule* const dropped = std::exchange(rule, nullptr);
    if (dropped == nullptr || --dropped->uses_ > 0)
    {
        return;
    }
    // Nobody waits for the answer, and a connection that has gone has no rules.
    if (!dropped->refused() && hub_.usable())
    {
        static_cast<void>(sd_bus_call_method_async(
            hub_.bus(), nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "RemoveMatch", nullptr, nullptr, "s", dropped->text_->c_str()));
    }
    rules_.erase(*dropped->text_);
}

void Rules::Retry(Rule* rule)
{
    if (rule != nullptr && rule->refused())
    {
        Send(*rule);
    }
}

void Rules::Send(Rule& rule)
{
    rule.state_ = Rule::State::Sent;
    sd_bus_slot* slot = nullptr;
    const int result = sd_bus_call_method_async(
        hub_.bus(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "AddMatch", OnAnswer, &rule, "s", rule.text_->c_str());
    rule.answer_.reset(slot);
    if (result < 0)
    {
        rule.state_ = Rule::State::Refused;
        rule.failure_ = {"org.freedesktop.DBus.Error.Failed", std::strerror(-result)};
    }
}

int Rules::OnAnswer(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Rule& rule = *static_cast<Rule*>(user_data);
    Hub& hub = rule.rules_->hub_;
    const Hub::Scope scope(hub);
    rule.answer_.reset();
    if (const sd_bus_error* error = sd_bus_message_get_error(answer))
    {
        rule.state_ = Rule::State::Refused;
        rule.failure_ = FailureOf(error);
        BMCBUS_LOG(error, "the bus refuses the rule [%s]: %s", rule.text_->c_str(),
                   rule.failure_.text.c_str());
    }
    else
    {
        rule.state_ = Rule::State::Installed;
    }
    hub.Guard([&] { hub.RuleAnswered(); });
    return 1;
}

} // namespace bmcbus::live
