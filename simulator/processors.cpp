// Power limits act on the model; registers only keep what is written. Telemetry of a package is one
// list of numbers in the order of its signal.

#include "processors.hpp"

#include <ctime>

namespace simulator
{
namespace
{

constexpr const char* cpuInterface = "com.tamm.bmc.Cpu.cpu";
constexpr const char* telemetryInterface = "com.tamm.bmc.cpumetrics.CpuTelemetryPkg";
constexpr size_t sockets = 4; // half of them populated

// One value per socket, zero where it is empty.
template <class Take>
std::vector<uint32_t> PerSocket(const std::vector<Cpu>& cpus, Take take)
{
    std::vector<uint32_t> values =
        PerEach(cpus, [&](const Cpu& cpu) { return static_cast<uint32_t>(take(cpu)); });
    values.resize(sockets);
    return values;
}

std::vector<uint8_t> Populated(const std::vector<Cpu>& cpus)
{
    std::vector<uint8_t> flags(cpus.size(), 1);
    flags.resize(sockets);
    return flags;
}

} // namespace

Processors::Processors(Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Cpu", "/com/tamm/bmc/cpu", setting),
    model(machine),
    registers(machine.cpus.size()),
    telemetry(Add("/com/tamm/bmc/cpu/telemetry", telemetryInterface))
{
    for (size_t index = 0; index < model.cpus.size(); ++index)
    {
        cpus.push_back(&AddCpu(index));
    }
    telemetry.OnCall("GetCpuTelemetryData",
                     [this](const Call& call)
                     {
                         const auto package = call.arguments[0].Get<uint8_t>();
                         if (package >= model.cpus.size())
                         {
                             throw CallError(SD_BUS_ERROR_INVALID_ARGS,
                                             "There is no such package.");
                         }
                         return PerEach(Package(model.cpus[package]),
                                        [](uint32_t figure) { return Value(figure); });
                     });
    Publish();
}

Object& Processors::AddCpu(size_t index)
{
    Object& cpu = Add("/com/tamm/bmc/cpu/cpu" + std::to_string(index), cpuInterface);
    ServeLimit(cpu, "setMemPL1", model.memoryLimit1);
    ServeLimit(cpu, "setCpuPL1", model.cpus[index].limit1);
    ServeLimit(cpu, "setCpuPL2", model.cpus[index].limit2);
    ServeLimit(cpu, "setSysPL1", model.systemLimit1);
    ServeLimit(cpu, "setSysPL2", model.systemLimit2);
    ServeRegisters(cpu, index);
    cpu.OnCall("readRTC",
               [](const Call&) -> std::vector<Value>
               { return {std::tuple(static_cast<uint64_t>(std::time(nullptr)), uint8_t{1})}; });
    return cpu;
}

void Processors::ServeLimit(Object& cpu, const std::string& method, uint32_t& limit)
{
    cpu.OnCall(method,
               [&limit](const Call& call) -> std::vector<Value>
               {
                   const auto watts = call.arguments[0].Get<uint32_t>();
                   if (watts == 0 || watts > 10000)
                   {
                       return {1};
                   }
                   limit = watts;
                   return {0};
               });
}

void Processors::ServeRegisters(Object& cpu, size_t index)
{
    const auto accesses = [](const Call& call)
    { return call.arguments[0].Get<std::vector<Access>>(); };
    auto& known = registers[index];
    cpu.OnCall("writeRASCPCIeCfg",
               [&known, accesses](const Call& call) -> std::vector<Value>
               {
                   for (const auto& [bus, device, function, offset, value] : accesses(call))
                   {
                       known[{bus, device, function, offset}] = value;
                   }
                   return {0};
               });
    // The last register that is asked for is the one that is answered.
    cpu.OnCall("readRASCPCIeCfg",
               [&known, accesses](const Call& call) -> std::vector<Value>
               {
                   uint32_t answer = 0;
                   for (const auto& [bus, device, function, offset, ignored] : accesses(call))
                   {
                       const auto found = known.find({bus, device, function, offset});
                       answer = found == known.end() ? 0xFFFFFFFF : found->second;
                   }
                   return {answer};
               });
}

std::vector<uint32_t> Processors::Package(const Cpu& cpu) const
{
    const auto figure = [](double value) { return static_cast<uint32_t>(value); };
    const auto low = [](double value)
    { return static_cast<uint32_t>(static_cast<uint64_t>(value) & 0xFFFFFFFF); };
    const auto high = [](double value)
    { return static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32); };
    const double memory = model.DimmWatts(static_cast<size_t>(&cpu - model.cpus.data()));
    const double cycles = static_cast<double>(model.elapsed) * 2.4e6;
    const double busy = cycles * cpu.load;
    const bool limited = cpu.power.now >= cpu.limit1;
    return {
        low(busy), // time at work
        high(busy),
        low(cycles - busy), // time idle
        high(cycles - busy),
        figure(cpu.load * 900), // traffic of four ports and the link to the chip set
        figure(cpu.load * 700),
        figure(cpu.load * 400),
        figure(cpu.load * 100),
        figure(cpu.load * 50),
        figure(1200 + cpu.load * 1900), // megahertz
        low(cpu.joules),
        figure(memory * static_cast<double>(model.elapsed) / 1000),
        limited ? 1U : 0U,
        low(static_cast<double>(model.elapsed)),
        figure(cpu.power.now),
        figure(memory),
        0, // no thermal event
        0,
        0,
        98, // highest junction temperature
        figure(cpu.joules / (busy + 1) * 1e9),
        0,
        limited ? 1U : 0U,
        0,
        10,
        low(cycles),
        low(busy),
        high(busy),
        low(cycles),
        high(cycles),
    };
}

NamedValues Processors::PowerAndHeat() const
{
    const std::vector<std::pair<std::string, std::vector<uint32_t>>> figures = {
        {"rawdts", PerSocket(model.cpus, [](const Cpu& cpu) { return 98 - cpu.celsius; })},
        {"thermalMargin", PerSocket(model.cpus, [](const Cpu& cpu) { return 88 - cpu.celsius; })},
        {"cpupkgPwr", PerSocket(model.cpus, [](const Cpu& cpu) { return cpu.power.now; })},
        {"tarTemp", PerSocket(model.cpus, [](const Cpu&) { return 88; })},
        {"cpuEnergy", PerSocket(model.cpus, [](const Cpu& cpu) { return cpu.joules; })},
        {"cpuEnergyTS", PerSocket(model.cpus, [this](const Cpu&) { return model.elapsed; })},
        {"cpuPL1", PerSocket(model.cpus, [](const Cpu& cpu) { return cpu.limit1; })},
        {"cpuPL2", PerSocket(model.cpus, [](const Cpu& cpu) { return cpu.limit2; })},
        {"sysPL1", PerSocket(model.cpus, [this](const Cpu&) { return model.systemLimit1; })},
        {"sysPL2", PerSocket(model.cpus, [this](const Cpu&) { return model.systemLimit2; })},
        {"memPL1", PerSocket(model.cpus, [this](const Cpu&) { return model.memoryLimit1; })},
        {"c0Res", PerSocket(model.cpus, [](const Cpu& cpu) { return cpu.load * 100; })},
    };
    NamedValues values = {{"cpuAvailablity", Populated(model.cpus)}};
    for (const auto& [name, figure] : figures)
    {
        values.emplace_back(name + "Availablity", Populated(model.cpus));
        values.emplace_back(name, figure);
    }
    return values;
}

std::vector<Value> Processors::Packages() const
{
    std::vector<std::vector<uint32_t>> figures(Package(model.cpus.front()).size());
    for (const Cpu& cpu : model.cpus)
    {
        const std::vector<uint32_t> package = Package(cpu);
        for (size_t i = 0; i < package.size(); ++i)
        {
            figures[i].push_back(package[i]);
        }
    }
    std::vector<Value> arguments = {std::vector<uint8_t>(model.cpus.size(), 1)};
    arguments.insert(arguments.end(), figures.begin(), figures.end());
    return arguments;
}

void Processors::Publish()
{
    for (Object* cpu : cpus)
    {
        Emit(*cpu, cpuInterface, "PowerThermalCpuTelemetry", PowerAndHeat());
    }
    telemetry.EmitValues("CpuTelemetryPkg1Change", Packages());
    telemetry.Emit("SecondSignal", static_cast<uint8_t>(model.steps));
}

} // namespace simulator
