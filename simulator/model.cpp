// Loads wander at random; power, heat and fan speeds follow them with rough physics. One generator
// gives all random numbers, in a fixed order, so that a seed repeats a run.

#include "model.hpp"

#include <algorithm>
#include <cmath>

namespace simulator
{
namespace
{

constexpr double idleWatts = 45;

std::vector<Fan> Fans(const std::string& prefix, int count)
{
    std::vector<Fan> fans;
    for (int i = 1; i <= count; ++i)
    {
        Fan fan;
        fan.name = prefix + std::to_string(i);
        fans.push_back(fan);
    }
    return fans;
}

// Half of the way from one value to another, as things with inertia move.
double Towards(double from, double to)
{
    return from + (to - from) / 2;
}

} // namespace

Model::Model(uint32_t seed) :
    chassisFans(Fans("Fan", 6)), supplyFans(Fans("PSUFan", 2)), random(seed)
{
    for (size_t cpu = 0; cpu < cpus.size(); ++cpu)
    {
        for (int slot = 1; slot <= 4; ++slot)
        {
            std::string name = cpu == 0 ? "A" : "B";
            name += std::to_string(slot);
            dimms.push_back({.slot = name, .cpu = cpu, .power = {}});
        }
    }
    Step(0);
}

double Model::Noise()
{
    // The standard's distributions differ between libraries, so the numbers are scaled by hand.
    return static_cast<double>(random()) / static_cast<double>(std::mt19937::max()) * 2 - 1;
}

double Model::Wander(double value, double step, double least, double most)
{
    return std::clamp(value + step * Noise(), least, most);
}

void Model::Step(uint32_t milliseconds)
{
    const double seconds = milliseconds / 1000.0;
    ++steps;
    elapsed += milliseconds;
    inlet = Wander(inlet, 0.2, 20, 28);
    StepCpus(seconds);
    StepFans();
    StepPower(seconds);
}

void Model::StepCpus(double seconds)
{
    for (Cpu& cpu : cpus)
    {
        cpu.load = Wander(cpu.load, 0.12, 0.05, 1);
        const double wanted = idleWatts + cpu.load * 180;
        cpu.power.Read(std::min(wanted, static_cast<double>(cpu.limit1)));
        cpu.celsius = Towards(cpu.celsius, inlet + 8 + cpu.power.now * 0.2);
        cpu.joules += cpu.power.now * seconds;
    }
    const double share = memoryLimit1 / static_cast<double>(dimms.size());
    for (Dimm& dimm : dimms)
    {
        const double watts = std::min(2 + 4 * cpus[dimm.cpu].load + 0.2 * Noise(), share);
        if (dimm.present)
        {
            dimm.power.Read(watts);
        }
    }
}

void Model::StepFans()
{
    double hottest = 0;
    for (const Cpu& cpu : cpus)
    {
        hottest = std::max(hottest, cpu.celsius);
    }
    double sum = 0;
    for (std::vector<Fan>* group : {&chassisFans, &supplyFans})
    {
        for (Fan& fan : *group)
        {
            if (!fan.manual)
            {
                fan.asked = static_cast<uint8_t>(std::clamp((hottest - 25) * 1.6, 20.0, 100.0));
            }
            const double near = Towards(fan.measured, fan.asked) + Noise();
            fan.measured = static_cast<uint8_t>(std::clamp(std::round(near), 0.0, 100.0));
            fan.watts = 0.5 + 12 * std::pow(fan.measured / 100.0, 3);
        }
    }
    for (const Fan& fan : chassisFans)
    {
        sum += fan.measured;
    }
    airflow = sum / 4;
    exhaust = Towards(exhaust, inlet + OutputWatts() / (8 + airflow / 3));
}

void Model::StepPower(double seconds)
{
    storageWatts = Wander(storageWatts, 0.5, 22, 36);
    pcieWatts = Wander(pcieWatts, 0.8, 25, 60);
    boardWatts = Wander(boardWatts, 0.3, 35, 45);
    const double output = OutputWatts();
    for (PowerSupply& supply : supplies)
    {
        supply.inputVolts = Wander(supply.inputVolts, 0.4, 224, 236);
        supply.outputWatts = output / static_cast<double>(supplies.size());
        supply.inputWatts = 6 + supply.outputWatts * 1.06;
        supply.celsius = Towards(supply.celsius, inlet + 6 + supply.outputWatts * 0.04);
    }
    double total = 0;
    for (const PowerSupply& supply : supplies)
    {
        total += supply.inputWatts;
    }
    input.Read(total);
    wattHours += total * seconds / 3600;
    peakAmperes = std::max(peakAmperes, total / supplies.front().inputVolts);
}

bool Model::SetFan(std::vector<Fan>& fans, const std::string& name, uint8_t percent)
{
    const auto fan = std::find_if(fans.begin(), fans.end(),
                                  [&](const Fan& candidate) { return candidate.name == name; });
    if (fan == fans.end() || percent > 100)
    {
        return false;
    }
    fan->manual = true;
    fan->asked = percent;
    return true;
}

double Model::CpuWatts() const
{
    double sum = 0;
    for (const Cpu& cpu : cpus)
    {
        sum += cpu.power.now;
    }
    return sum;
}

double Model::DimmWatts(size_t cpu) const
{
    double sum = 0;
    for (const Dimm& dimm : dimms)
    {
        sum += dimm.cpu == cpu ? dimm.power.now : 0;
    }
    return sum;
}

double Model::DimmWatts() const
{
    double sum = 0;
    for (const Dimm& dimm : dimms)
    {
        sum += dimm.power.now;
    }
    return sum;
}

double Model::FanWatts() const
{
    double sum = 0;
    for (const std::vector<Fan>* group : {&chassisFans, &supplyFans})
    {
        for (const Fan& fan : *group)
        {
            sum += fan.watts;
        }
    }
    return sum;
}

double Model::OutputWatts() const
{
    return CpuWatts() + DimmWatts() + FanWatts() + storageWatts + pcieWatts + boardWatts;
}

double Model::Average(const Meter& meter) const
{
    return meter.sum / static_cast<double>(steps);
}

} // namespace simulator
