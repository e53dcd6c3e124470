// A service in front of which stands an interceptor: it writes each call down, then lets the faults
// answer, and what they leave is answered rightly.

#include "service_link.hpp"

#include <bmcbus/testing/fake_service.hpp>

#include <algorithm>

namespace bmcbus::testing
{

FaultRule::FaultRule(FakeService& owner, std::string member, std::string argument) : service(owner)
{
    rule.member = std::move(member);
    rule.argument = std::move(argument);
}

FaultRule& FaultRule::At(const std::string& path)
{
    rule.path = path;
    return *this;
}

FaultRule& FaultRule::Once()
{
    return Times(1);
}

FaultRule& FaultRule::Times(size_t count)
{
    rule.times = count;
    return *this;
}

void FaultRule::Install(Faults::Kind kind)
{
    rule.kind = kind;
    service.Run([this] { service.faults.Add(rule); });
}

void FaultRule::ReplyError(const std::string& name, const std::string& text)
{
    rule.errorName = name;
    rule.errorText = text;
    Install(Faults::Kind::error);
}

void FaultRule::Reply(std::vector<Value> values)
{
    rule.values = std::move(values);
    Install(Faults::Kind::values);
}

void FaultRule::NoReply()
{
    Install(Faults::Kind::silence);
}

void FaultRule::Hold()
{
    Install(Faults::Kind::hold);
}

void FaultRule::Delay(std::chrono::milliseconds time)
{
    rule.time = time;
    Install(Faults::Kind::delay);
}

void FaultRule::Crash()
{
    Install(Faults::Kind::crash);
}

FakeService::FakeService(std::vector<std::string> wellKnown) :
    Service(std::move(wellKnown)), faults(*this)
{
    Intercept(
        [this](const Call& call, sd_bus_message* message)
        {
            {
                const std::lock_guard lock(mutex);
                calls.push_back(call);
            }
            return faults.Handle(call, message);
        });
}

FakeService::FakeService(const std::string& name, const std::string& path,
                         const std::vector<std::string>& interfaces, const NamedValues& values) :
    FakeService(std::vector<std::string>{name})
{
    AddObject(path, interfaces, values);
}

FakeService::~FakeService()
{
    if (!link->home.Left())
    {
        Intercept({});
        Run([this] { faults.Drop(); });
    }
}

Object* FakeService::operator->()
{
    return OnThread(
        [this]
        {
            if (first.empty())
            {
                throw std::invalid_argument("the service has no object");
            }
            return &ObjectAt(first);
        });
}

FaultRule FakeService::On(const std::string& member, const std::string& argument)
{
    return FaultRule(*this, member, argument);
}

void FakeService::Heal(const std::string& member)
{
    Run([&] { faults.Remove(member); });
}

bool FakeService::WaitForHeld(size_t count, std::chrono::milliseconds bound)
{
    return Until(
        [&]
        {
            size_t held = 0;
            Run([&] { held = faults.Held(); });
            return held >= count;
        },
        bound);
}

void FakeService::Release()
{
    Run([this] { faults.Release(); });
}

std::vector<Call> FakeService::Calls() const
{
    const std::lock_guard lock(mutex);
    return calls;
}

std::vector<Call> FakeService::Calls(const std::string& member) const
{
    std::vector<Call> matching = Calls();
    std::erase_if(matching, [&](const Call& call) { return call.member != member; });
    return matching;
}

Waited FakeService::WaitForCalls(const std::string& member, size_t count,
                                 std::chrono::milliseconds bound) const
{
    if (Until([&] { return Calls(member).size() >= count; }, bound))
    {
        return Waited();
    }
    constexpr size_t most = 20;
    const std::vector<Call> all = Calls();
    std::string instead = std::to_string(Calls(member).size()) + " of " + std::to_string(count) +
                          " calls of " + member + " came, of all calls:";
    for (size_t at = all.size() - std::min(all.size(), most); at < all.size(); ++at)
    {
        instead += "\n  " + all[at].path + " " + all[at].interface + "." + all[at].member + " " +
                   all[at].Arguments();
    }
    return Waited(instead);
}

void FakeService::ClearCalls()
{
    const std::lock_guard lock(mutex);
    calls.clear();
}

} // namespace bmcbus::testing
