// The power report is a function of the model: the same values become properties and, with the
// rails, one signal.

#include "power.hpp"

#include <functional>
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

// What the power meters of these parts read: now, at least, at most, on average.
template <class Parts>
NamedValues MeterValues(const std::string& prefix, const Parts& parts, const Model& model)
{
    const auto each = [&](auto reading)
    {
        return PerEach(parts,
                       [&](const auto& part) { return Whole(std::invoke(reading, part.power)); });
    };
    return {
        {prefix + "CurPwr", each(&Meter::now)},
        {prefix + "MinPwr", each(&Meter::least)},
        {prefix + "MaxPwr", each(&Meter::most)},
        {prefix + "AvgPwr", each([&](const Meter& meter) { return model.Average(meter); })},
    };
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
    NamedValues values = {
        {"CPUSlotCount", cpus.size()},         {"CPUActiveUnits", Repeat(cpus.size(), 1)},
        {"CPUTimeStmp", Times(cpus.size())},   {"CPUStatisticsReportingPeriod", Times(cpus.size())},
        {"CPUDomainID", Numbers(cpus.size())},
    };
    Append(values, MeterValues("CPU", cpus, model));
    return values;
}

NamedValues Power::Memory() const
{
    const auto& dimms = model.dimms;
    NamedValues values = {
        {"MEMSlotCount", dimms.size()},
        {"MemActiveUnits", PerEach(dimms, [](const Dimm& dimm) { return dimm.present ? 1 : 0; })},
        {"MEMTimeStmp", Times(dimms.size())},
        {"MEMStatisticsReportingPeriod", Times(dimms.size())},
        {"MEMDomainID", Numbers(dimms.size())},
    };
    Append(values, MeterValues("MEM", dimms, model));
    return values;
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
    return {
        {"PSUSlotCount", count},
        {"PSUActiveUnits", Repeat(count, 1)},
        {"PSUTemperatureReading", PerEach(supplies, &PowerSupply::celsius)},
        {"PSUAmbientTemperatureReading", Repeat(count, model.inlet)},
        {"PSUExhaustTemperatureReading",
         PerEach(supplies, [](const PowerSupply& supply) { return supply.celsius + 3; })},
        {"PSURPMReading", PerEach(model.supplyFans, &Fan::Rpm)},
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
        {"psuVIn", PerEach(supplies, &PowerSupply::inputVolts)},
        {"psuVOut", Repeat(supplies.size(), 12.1)},
        {"psuIIn",
         PerEach(supplies, [](Supply supply) { return supply.inputWatts / supply.inputVolts; })},
        {"psuIOut", PerEach(supplies, [](Supply supply) { return supply.outputWatts / 12.1; })},
        {"psuPIn", PerEach(supplies, &PowerSupply::inputWatts)},
        {"psuPOut", PerEach(supplies, &PowerSupply::outputWatts)},
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
