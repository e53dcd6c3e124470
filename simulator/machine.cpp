// Everything shares one event loop. A step moves the model, then each part that is connected
// publishes what changed.

#include "machine.hpp"

#include <algorithm>
#include <system_error>

namespace simulator
{
namespace
{

void Check(int result, const char* call)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), call);
    }
}

template <class... P>
std::vector<std::unique_ptr<Part>> Build(Model& model, const Setting& setting)
{
    std::vector<std::unique_ptr<Part>> parts;
    ((parts.push_back(std::make_unique<P>(model, setting)), parts.back()->Announce()), ...);
    return parts;
}

} // namespace

Machine::Machine(const Options& chosen, sd_event* event) :
    options(chosen),
    loop(event),
    model(chosen.seed),
    parts(Build<Thermal, Power, Processors, Memory, Network, Debug>(model,
                                                                    {event, chosen.ownManagers})),
    mapper(chosen.mapper ? std::make_unique<Mapper>(Services(), event) : nullptr),
    control(
        Services(), [this] { Step(); },
        [this](const std::string& slot, bool present)
        {
            return std::any_of(parts.begin(), parts.end(),
                               [&](const auto& part) { return part->Plug(slot, present); });
        },
        event)
{
    // Without the bus there is nothing left to do.
    Check(sd_bus_set_exit_on_disconnect(control.Connection(), 1), "sd_bus_set_exit_on_disconnect");
    if (options.period == 0)
    {
        return;
    }
    Check(sd_event_add_time_relative(loop, &timer, CLOCK_MONOTONIC, options.period * 1000ULL, 0,
                                     OnTimer, this),
          "sd_event_add_time_relative");
    Check(sd_event_source_set_enabled(timer, SD_EVENT_ON), "sd_event_source_set_enabled");
}

Machine::~Machine()
{
    sd_event_source_disable_unref(timer);
}

std::vector<bmcbus::testing::Service*> Machine::Services() const
{
    return PerEach(parts, [](const auto& part) { return &part->Bus(); });
}

void Machine::Step()
{
    // Without time of its own a step stands for a second.
    model.Step(options.period == 0 ? 1000 : options.period);
    for (const auto& part : parts)
    {
        if (part->Bus().Connected())
        {
            part->Publish();
        }
    }
}

int Machine::OnTimer(sd_event_source* source, uint64_t now, void* self)
{
    auto& machine = *static_cast<Machine*>(self);
    try
    {
        machine.Step();
        Check(sd_event_source_set_time(source, now + machine.options.period * 1000ULL),
              "sd_event_source_set_time");
        return 0;
    }
    catch (const std::exception& failure)
    {
        machine.failure = failure.what();
        return sd_event_exit(machine.loop, 1);
    }
}

} // namespace simulator
