#include "power.hpp"

#include <numeric>

namespace simulator
{
namespace
{

constexpr const char* powerInterface = "com.tamm.bmc.power.PowerReporting";

// `count` times the same value, or counting up from 1.
template <class T>
std::vector<T> Repeat(size_t count, T value)
{
    return std::vector<T>(count, value);
}

std::vector<int64_t> Numbers(size_t count)
{
    std::vector<int64_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 1);
    return numbers;
}

void Append(NamedValues& all, const NamedValues& more)
{
    all.insert(all.end(), more.begin(), more.end());
}

} // namespace

Power::Power(const Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Power", "/com/tamm/bmc/power", setting),
    model(machine),
    object(Add("/com/tamm/bmc/power/system", powerInterface))
{
    Publish();
}

void Power::Publish()
{
    NamedValues values;
    for (const NamedValues& part : {Processors(), Memory(), Totals(), Supplies()})
    {
        Append(values, part);
    }
    Update(object, values);
    Append(values, Rails());
    Emit(object, powerInterface, "NotifyPwrReportingData", values);
}

std::vector<int64_t> Power::Times(size_t count) const
{
    return Repeat(count, static_cast<int64_t>(model.elapsed / 1000));
}

NamedValues Power::Processors() const
{
    const auto& cpus = model.cpus;
    return {
        {"CPUSlotCount", cpus.size()},
        {"CPUActiveUnits", Repeat(cpus.size(), 1)},
        {"CPUCurPwr", PerEach(cpus, [](const Cpu& cpu) { return Whole(cpu.power.now); })},
        {"CPUMinPwr", PerEach(cpus, [](const Cpu& cpu) { return Whole(cpu.power.least); })},
        {"CPUMaxPwr", PerEach(cpus, [](const Cpu& cpu) { return Whole(cpu.power.most); })},
        {"CPUAvgPwr",
         PerEach(cpus, [this](const Cpu& cpu) { return Whole(model.Average(cpu.power)); })},
        {"CPUTimeStmp", Times(cpus.size())},
        {"CPUStatisticsReportingPeriod", Times(cpus.size())},
        {"CPUDomainID", Numbers(cpus.size())},
    };
}

NamedValues Power::Memory() const
{
    const auto& dimms = model.dimms;
    return {
        {"MEMSlotCount", dimms.size()},
        {"MemActiveUnits", Repeat(dimms.size(), 1)},
        {"MEMCurPwr", PerEach(dimms, [](const Dimm& dimm) { return Whole(dimm.power.now); })},
        {"MEMMinPwr", PerEach(dimms, [](const Dimm& dimm) { return Whole(dimm.power.least); })},
        {"MEMMaxPwr", PerEach(dimms, [](const Dimm& dimm) { return Whole(dimm.power.most); })},
        {"MEMAvgPwr",
         PerEach(dimms, [this](const Dimm& dimm) { return Whole(model.Average(dimm.power)); })},
        {"MEMTimeStmp", Times(dimms.size())},
        {"MEMStatisticsReportingPeriod", Times(dimms.size())},
        {"MEMDomainID", Numbers(dimms.size())},
    };
}

NamedValues Power::Totals() const
{
    const double output = model.OutputWatts();
    return {
        {"TotalStoragePower", model.storageWatts},
        {"TotalPciePower", model.pcieWatts},
        {"TotalFanPower", model.FanWatts()},
        {"gpuFanPower", 0.0},
        {"computeBoardPower", model.CpuWatts() + model.DimmWatts()},
        {"gpuBoardPower", 0.0},
        {"psbPower", model.boardWatts},
        {"SystemOutputPower", Whole(output)},
        {"SystemOutputPowerTimeStmp", model.elapsed / 1000},
        {"SystemInputPower", Whole(model.input.now)},
        {"SystemInputPowerTimeStmp", model.elapsed / 1000},
        {"SystemHeadRoomInstantaneous", Whole(1600 - output)},
        {"SystemPowerConsumption", Whole(model.input.now)},
        {"UserPowerCapMinLimit", 300.0},
        {"UserPowerCapMaxLimit", 1200.0},
        {"peciSupportFlag", Repeat(model.cpus.size(), 1)},
        {"gpgpuSlotMap", 0},
        {"pbt_version", 2},
        {"peakPowerWatts", model.input.most},
        {"minPowerWatts", model.input.least},
        {"cumulativePower", model.wattHours},
        {"peakCurrentAmps", model.peakAmperes},
        {"vrPerCPU", 2},
    };
}

NamedValues Power::Supplies() const
{
    const auto& supplies = model.supplies;
    const size_t count = supplies.size();
    const auto celsius = [](const PowerSupply& supply) { return supply.celsius; };
    return {
        {"PSUSlotCount", count},
        {"PSUActiveUnits", Repeat(count, 1)},
        {"PSUTemperatureReading", PerEach(supplies, celsius)},
        {"PSUAmbientTemperatureReading", Repeat(count, model.inlet)},
        {"PSUExhaustTemperatureReading",
         PerEach(supplies, [](const PowerSupply& supply) { return supply.celsius + 3; })},
        {"PSURPMReading", PerEach(model.supplyFans, [](const Fan& fan) { return fan.Rpm(); })},
        {"PSUCompOTP", Repeat(count, 0)},
        {"PSUPresence", Repeat(count, 1)},
        {"PSUSlot", Numbers(count)},
        {"PSUPoutMaxDisplay", Repeat(count, 800)},
        {"PSUlineStatusShadow", Repeat(count, 1)},
        {"PSUEnabled", Repeat(count, 1)},
        {"PSUType", Repeat(count, 1)},
        {"RedundancyStatus", 1},
    };
}

NamedValues Power::Rails() const
{
    using Supply = const PowerSupply&;
    const auto& supplies = model.supplies;
    // Two regulators a processor.
    std::vector<std::string> names;
    std::vector<double> watts;
    for (size_t cpu = 0; cpu < model.cpus.size(); ++cpu)
    {
        for (const char* rail : {"CORE", "UNCORE"})
        {
            names.push_back("CPU" + std::to_string(cpu) + "_" + rail);
            watts.push_back(model.cpus[cpu].power.now / 2);
        }
    }
    const size_t count = names.size();
    return {
        {"psuVIn", PerEach(supplies, [](Supply supply) { return supply.inputVolts; })},
        {"psuVOut", Repeat(supplies.size(), 12.1)},
        {"psuIIn",
         PerEach(supplies, [](Supply supply) { return supply.inputWatts / supply.inputVolts; })},
        {"psuIOut", PerEach(supplies, [](Supply supply) { return supply.outputWatts / 12.1; })},
        {"psuPIn", PerEach(supplies, [](Supply supply) { return supply.inputWatts; })},
        {"psuPOut", PerEach(supplies, [](Supply supply) { return supply.outputWatts; })},
        {"vrAvailability", Repeat(count, 1)},
        {"vrName", names},
        {"vrLastAvailabilityTime", Times(count)},
        {"vrIout", PerEach(watts, [](double watt) { return watt / 1.8; })},
        {"vrPout", watts},
        {"vrTemp", PerEach(watts, [this](double watt) { return model.inlet + 10 + watt / 4; })},
        {"vrVin", Repeat(count, 12.1)},
        {"vrVout", Repeat(count, 1.8)},
        {"vrOcw", Repeat(count, 160.0)},
        {"vrPcc", Repeat(count, 0.0)},
    };
}

} // namespace simulator
