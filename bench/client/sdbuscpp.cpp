// sdbus-c++, as its generated proxies use it.

#include "fans.hpp"
#include "power.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <type_traits>

namespace bench
{
namespace
{

using Values = std::map<std::string, sdbus::Variant>;

template <class Member>
using Value = std::decay_t<std::invoke_result_t<Member, power::Slot>>;

sdbus::Variant SampleVariant(const char* type)
{
    sdbus::Variant variant;
    power::WithMember(type,
                      [&](auto member) { variant = sdbus::Variant(power::Sample().*member); });
    return variant;
}

Values SampleValues()
{
    Values values;
    for (const power::Member& property : power::properties)
    {
        values.emplace(property.name, SampleVariant(property.type));
    }
    return values;
}

// The reply's contents travel in a signal, which can be made and sealed without a call.
sdbus::Signal MakeMessage(const std::string& what)
{
    static const auto connection = sdbus::createSystemBusConnection();
    static const auto object = sdbus::createObject(*connection, power::path);
    sdbus::Signal message = object->createSignal(power::interface, power::signal);
    if (what == "changed")
    {
        message << std::string(power::interface) << SampleValues() << std::vector<std::string>();
    }
    else if (what == "all")
    {
        message << SampleValues();
    }
    else
    {
        for (size_t i = 0; i < power::argumentCount; ++i)
        {
            power::WithMember(power::ArgumentType(i),
                              [&](auto member) { message << power::Sample().*member; });
        }
    }
    message.seal();
    return message;
}

void Store(const Values& values, power::Object& object)
{
    for (const auto& entry : values)
    {
        const auto found = power::Index().find(entry.first);
        if (found == power::Index().end())
        {
            continue;
        }
        power::Slot& slot = object.slots[found->second];
        power::WithMember(power::properties[found->second].type, [&](auto member)
                          { slot.*member = entry.second.get<Value<decltype(member)>>(); });
    }
}

void OnChanged(sdbus::Message& message, power::Object& object)
{
    std::string which;
    Values values;
    std::vector<std::string> invalidated;
    message >> which >> values >> invalidated;
    if (which == power::interface)
    {
        Store(values, object);
    }
}

void OnReply(sdbus::Message& message, power::Object& object)
{
    Values values;
    message >> values;
    Store(values, object);
}

void OnNotify(sdbus::Message& message, power::Object& object)
{
    for (size_t i = 0; i < power::argumentCount; ++i)
    {
        power::WithMember(power::ArgumentType(i),
                          [&](auto member)
                          {
                              Value<decltype(member)> value{};
                              message >> value;
                              object.slots[i].*member = std::move(value);
                          });
    }
}

Work Decode(const std::string& what)
{
    static power::Object object;
    const auto handler = what == "changed" ? OnChanged : what == "all" ? OnReply : OnNotify;
    return [=, message = MakeMessage(what)]() mutable
    {
        message.rewind(true);
        handler(message, object);
    };
}

using Connection = std::unique_ptr<sdbus::IConnection>;

std::unique_ptr<sdbus::IProxy> MakeProxy(const Connection& connection)
{
    return sdbus::createProxy(*connection, fans::service, fans::path);
}

void Get(sdbus::IProxy& proxy)
{
    const uint8_t value = proxy.getProperty("fanCount").onInterface(fans::interface);
    Check(value == fans::present, "value");
}

void Call(sdbus::IProxy& proxy)
{
    static const std::string fan = "Fan1";
    int32_t status = -1;
    proxy.callMethod("updateFanPWMData")
        .onInterface(fans::interface)
        .withArguments(fan, uint8_t{40})
        .storeResultsTo(status);
    Check(status == 0, "status");
}

// With what keeps it up to date.
void Create(const Connection& connection)
{
    uint8_t value = 0;
    const auto store = [&](const Values& values)
    {
        const auto found = values.find("fanCount");
        value = found == values.end() ? value : found->second.get<uint8_t>();
    };
    const auto proxy = MakeProxy(connection);
    proxy->uponSignal("PropertiesChanged")
        .onInterface(propertiesInterface)
        .call(
            [&](const std::string& which, const Values& values, const std::vector<std::string>&)
            {
                if (which == fans::interface)
                {
                    store(values);
                }
            });
    proxy->finishRegistration();
    Values values;
    proxy->callMethod("GetAll")
        .onInterface(propertiesInterface)
        .withArguments(fans::interface)
        .storeResultsTo(values);
    store(values);
    Check(value == fans::present, "value");
}

Work OnHeldConnection(const std::string& what)
{
    static const Connection connection = sdbus::createSystemBusConnection();
    if (what == "create")
    {
        return [] { Create(connection); };
    }
    static const auto proxy = MakeProxy(connection);
    const auto once = what == "get" ? Get : Call;
    return [=] { once(*proxy); };
}

Work OnOwnConnection(const std::string& what)
{
    return [first = what == "first"]
    {
        const Connection connection = sdbus::createSystemBusConnection();
        if (first)
        {
            Create(connection);
        }
        else
        {
            Get(*MakeProxy(connection));
        }
    };
}

} // namespace

Work SdbusCpp(const std::string& what)
{
    if (what == "get" || what == "call" || what == "create")
    {
        return OnHeldConnection(what);
    }
    return what == "get-taken" || what == "first" ? OnOwnConnection(what) : Decode(what);
}

} // namespace bench
