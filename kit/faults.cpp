// Rules are looked through from the newest to the oldest; the first that fits a call decides. A
// call without an answer yet is kept with its message until it is released or its time has come.

#include <bmcbus/testing/faults.hpp>

#include "check.hpp"

#include <algorithm>

namespace bmcbus::testing
{

// A call without an answer yet.
struct Faults::Waiting
{
    Waiting(Faults& faults, Call received, sd_bus_message* message) :
        owner(faults), call(std::move(received)), request(sd_bus_message_ref(message))
    {
    }

    void Answer()
    {
        // A caller or connection that is gone needs none.
        if (sd_bus_is_open(sd_bus_message_get_bus(request.get())) > 0)
        {
            owner.service.Answer(call, request.get());
        }
    }

    static int OnTime(sd_event_source*, uint64_t, void* self)
    {
        auto* waiting = static_cast<Waiting*>(self);
        waiting->Answer();
        waiting->owner.delayed.remove_if([=](const auto& each) { return each.get() == waiting; });
        return 0;
    }

    Faults& owner;
    Call call;
    Owned<sd_bus_message> request;
    Owned<sd_event_source> timer;
};

Faults::Faults(Service& owner) : service(owner) {}

Faults::~Faults() = default;

void Faults::Add(Rule rule)
{
    if (rule.kind == Kind::error)
    {
        CheckError(rule.errorName, rule.errorText);
    }
    if (rule.member != "*" && !service.Answers(rule.member))
    {
        throw std::invalid_argument("no object has the method " + rule.member);
    }
    rules.remove_if(
        [&](const Rule& other)
        {
            return other.member == rule.member && other.argument == rule.argument &&
                   other.path == rule.path;
        });
    rules.push_front(std::move(rule));
}

void Faults::Remove(const std::string& member)
{
    rules.remove_if([&](const Rule& rule) { return member.empty() || rule.member == member; });
}

bool Faults::Fits(const Rule& rule, const Call& call) const
{
    if ((rule.member != "*" && rule.member != call.member) ||
        (!rule.path.empty() && rule.path != call.path))
    {
        return false;
    }
    return rule.argument.empty() ||
           std::any_of(call.arguments.begin(), call.arguments.end(),
                       [&](const Value& value) { return value == Value(rule.argument); });
}

bool Faults::Handle(const Call& call, sd_bus_message* message)
{
    const auto found = std::find_if(rules.begin(), rules.end(),
                                    [&](const Rule& rule) { return Fits(rule, call); });
    if (found == rules.end())
    {
        return false;
    }
    const Rule rule = *found;
    if (rule.times == 1)
    {
        rules.erase(found);
    }
    else if (rule.times > 1)
    {
        --found->times;
    }
    switch (rule.kind)
    {
        case Kind::error:
            Service::ReplyError(message, rule.errorName, rule.errorText);
            break;
        case Kind::values:
            Service::Reply(message, rule.values);
            break;
        case Kind::silence:
            break;
        case Kind::hold:
            held.push_back(std::make_unique<Waiting>(*this, call, message));
            break;
        case Kind::delay:
            Delay(call, message, rule.time);
            break;
        case Kind::crash:
            service.Crash();
            break;
    }
    return true;
}

void Faults::Delay(const Call& call, sd_bus_message* message, std::chrono::milliseconds time)
{
    auto waiting = std::make_unique<Waiting>(*this, call, message);
    sd_event_source* source = nullptr;
    const std::chrono::microseconds microseconds = time;
    Check(sd_event_add_time_relative(service.EventLoop(), &source, CLOCK_MONOTONIC,
                                     static_cast<uint64_t>(microseconds.count()), 0,
                                     Waiting::OnTime, waiting.get()),
          "sd_event_add_time_relative");
    waiting->timer.reset(source);
    delayed.push_back(std::move(waiting));
}

void Faults::Release()
{
    // Answering may run handlers, which may put more on hold.
    std::list<std::unique_ptr<Waiting>> now;
    now.swap(held);
    for (const auto& waiting : now)
    {
        waiting->Answer();
    }
}

void Faults::Drop()
{
    held.clear();
    delayed.clear();
}

size_t Faults::Held() const
{
    return held.size();
}

} // namespace bmcbus::testing
