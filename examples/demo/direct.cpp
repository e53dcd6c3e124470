// Asking: the object mapper and the direct proxies.

#include "acts.hpp"

#include <com/tamm/bmc/Cpu/cpu/client_cache.hpp>
#include <com/tamm/bmc/cpumetrics/CpuTelemetryPkg/client_cache.hpp>
#include <com/tamm/bmc/debug/dataorigin/client_cache.hpp>
#include <com/tamm/bmc/Memory/Dimm/client_cache.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/SystemInformation/client_cache.hpp>
#include <object_mapper.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

namespace demo
{
namespace
{

namespace Bmc = ClientEdge::com::tamm::bmc;

constexpr const char* chassisFans = "/com/tamm/bmc/thermal/fans/chassis";

template <class... Values>
std::string Format(const char* format, Values... values)
{
    char text[256];
    static_cast<void>(std::snprintf(text, sizeof(text), format, values...));
    return text;
}

// The time of each call of `work`, in the middle of all.
template <class Work>
double MedianMicroseconds(int count, Work work)
{
    std::vector<double> times;
    for (int i = 0; i < count; ++i)
    {
        const auto begin = std::chrono::steady_clock::now();
        work();
        const std::chrono::duration<double, std::micro> time =
            std::chrono::steady_clock::now() - begin;
        times.push_back(time.count());
    }
    std::nth_element(times.begin(), times.begin() + count / 2, times.end());
    return times[static_cast<size_t>(count / 2)];
}

} // namespace

void Discover(Report& report)
{
    report.Title("What the object mapper knows");
    std::set<std::string> kinds;
    for (const auto& [path, services] : ObjectMapper::Wrappers::GetSubTree("/", 0, {}))
    {
        for (const auto& [service, interfaces] : services)
        {
            // What every object has says nothing, and a mapper may list objects that have no more.
            const auto own = std::find_if(interfaces.begin(), interfaces.end(),
                                          [](const auto& name)
                                          { return !name.starts_with("org.freedesktop.DBus."); });
            if (own != interfaces.end())
            {
                kinds.insert(*own);
                report.Line(Format("%-42s %-29s %s", path.c_str(), service.c_str(), own->c_str()));
            }
        }
    }
    report.Expect(Format("objects of %zu interfaces", kinds.size()), kinds.size() >= 10);
}

void ReadAndWrite(Report& report)
{
    report.Title("Values, read by direct proxies");
    // Without a service the proxy asks the object mapper for it.
    Bmc::Thermal::FanReporting fans("", chassisFans);
    const auto table = fans.Get_fanPWMData();
    for (const auto& [name, reading] : table)
    {
        const auto& [asked, measured, rpm, healthy] = reading;
        report.Line(Format("%-6s asked %3u %%   measured %3u %%   %5u rpm   %s", name.c_str(),
                           asked, measured, rpm * 100U, healthy ? "healthy" : "broken"));
    }
    report.Expect("a table of fans", !table.empty() && table.size() == fans.Get_fanCount());

    Bmc::power::PowerReporting power("com.tamm.bmc.Power", "/com/tamm/bmc/power/system");
    const unsigned int in = power.Get_SystemInputPower();
    const unsigned int out = power.Get_SystemOutputPower();
    report.Line(
        Format("power   in %u W   out %u W   peak %.1f W", in, out, power.Get_peakPowerWatts()));
    report.Expect("power figures", in > out && out > 0);

    report.Title("A value, written and read back");
    Bmc::Thermal::SystemInformation air("", "/com/tamm/bmc/thermal/system");
    const int before = air.Get_ExhaustTemperature();
    const int16_t wanted = static_cast<int16_t>(before + 5);
    air.Set_ExhaustTemperature(wanted);
    const int after = air.Get_ExhaustTemperature();
    report.Expect(Format("ExhaustTemperature was %d, now is %d", before, after), after == wanted);
}

void CallProcessors(Report& report)
{
    bool ok = false;
    uint8_t status = 1;
    Bmc::Cpu::cpu cpu("", "/com/tamm/bmc/cpu/cpu0");
    using Limit = void (Bmc::Cpu::cpu::*)(bool&, const uint32_t&, uint8_t&);
    const std::vector<std::tuple<const char*, Limit, uint32_t>> limits = {
        {"setMemPL1", &Bmc::Cpu::cpu::Call_setMemPL1, 60},
        {"setCpuPL1", &Bmc::Cpu::cpu::Call_setCpuPL1, 180},
        {"setCpuPL2", &Bmc::Cpu::cpu::Call_setCpuPL2, 240},
        {"setSysPL1", &Bmc::Cpu::cpu::Call_setSysPL1, 600},
        {"setSysPL2", &Bmc::Cpu::cpu::Call_setSysPL2, 700},
    };
    for (const auto& [name, limit, watts] : limits)
    {
        (cpu.*limit)(ok, watts, status);
        report.Expect(Format("%s(%u) -> %u", name, watts, status), ok && status == 0);
    }
    cpu.Call_writeRASCPCIeCfg(ok, {{0, 30, 1, 0x40, 0xBEEF}}, status);
    report.Expect(Format("writeRASCPCIeCfg -> %u", status), ok && status == 0);
    uint32_t value = 0;
    cpu.Call_readRASCPCIeCfg(ok, {{0, 30, 1, 0x40, 0}}, value);
    report.Expect(Format("readRASCPCIeCfg -> 0x%X", value), ok && value == 0xBEEF);
    std::tuple<uint64_t, uint8_t> clock;
    cpu.Call_readRTC(ok, clock);
    report.Expect(Format("readRTC -> %llu", static_cast<unsigned long long>(std::get<0>(clock))),
                  ok && std::get<0>(clock) > 0);
}

void CallMemory(Report& report)
{
    bool ok = false;
    Bmc::Memory::Dimm memory("", "/com/tamm/bmc/memory/all");
    int32_t code = -1;
    memory.Call_getDbusStatus(ok, code);
    report.Expect(Format("getDbusStatus -> %d", code), ok && code == 0);
    double watts[5] = {};
    memory.Call_DimmPowerCmdHandler(ok, code, watts[0], watts[1], watts[2], watts[3], watts[4]);
    report.Expect(
        Format("DimmPowerCmdHandler -> %.1f + %.1f = %.1f W", watts[0], watts[1], watts[4]),
        ok && code == 0 && watts[4] > 0);
    memory.Call_MemoryCmdHandler(ok, {1, 60}, code);
    report.Expect(Format("MemoryCmdHandler(1, 60) -> %d", code), ok && code == 0);
}

void CallFansAndMore(Report& report)
{
    bool ok = false;
    int32_t code = -1;
    Bmc::Thermal::FanReporting fans("", chassisFans);
    fans.Call_updateFanPWMData(ok, "Fan3", 85, code);
    const unsigned int asked = std::get<0>(fans.Get_fanPWMData()["Fan3"]);
    report.Expect(
        Format("updateFanPWMData(Fan3, 85) -> %d, and Fan3 is asked for %u %%", code, asked),
        ok && code == 0 && asked == 85);
    Bmc::Thermal::SystemInformation air("", "/com/tamm/bmc/thermal/system");
    uint16_t inlet = 0;
    uint16_t exhaust = 0;
    air.Call_GetSystemThermalInformation(ok, inlet, exhaust);
    report.Expect(Format("GetSystemThermalInformation -> %u, %u", inlet, exhaust), ok && inlet > 0);
    Bmc::debug::dataorigin debug("", "/com/tamm/bmc/debug");
    std::string echo;
    debug.Call_debugmethod(ok, "hello", echo);
    report.Expect("debugmethod(hello) -> " + echo, ok && echo == "hello");
}

void CallTelemetry(Report& report)
{
    bool ok = false;
    Bmc::cpumetrics::CpuTelemetryPkg package("", "/com/tamm/bmc/cpu/telemetry");
    uint32_t d[30] = {};
    package.Call_GetCpuTelemetryData(ok, 0, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7], d[8],
                                     d[9], d[10], d[11], d[12], d[13], d[14], d[15], d[16], d[17],
                                     d[18], d[19], d[20], d[21], d[22], d[23], d[24], d[25], d[26],
                                     d[27], d[28], d[29]);
    report.Expect(Format("GetCpuTelemetryData(0) -> %u MHz, %u W, ...", d[9], d[14]),
                  ok && d[9] > 0 && d[14] > 0);
}

void CallMethods(Report& report)
{
    report.Title("Every method, once");
    CallProcessors(report);
    CallMemory(report);
    CallFansAndMore(report);
    CallTelemetry(report);
}

void Fail(Report& report)
{
    report.Title("What failures look like, in the log: level, source, place, text");
    Bmc::Thermal::SystemInformation air("", "/com/tamm/bmc/thermal/system");
    report.Line("a property that there is not:");
    Bmc::Thermal::SystemInformation::Variant value = int16_t{-1};
    air.GetByName("exhausttemperature", value);
    report.Expect("the value stayed as it was", value == decltype(value)(int16_t{-1}));
    report.Line("a property that cannot be written:");
    air.SetByName("Key", std::string("new"));
    report.Line("a service that is not there:");
    Bmc::Thermal::FanReporting nobody("com.example.Nobody", chassisFans);
    bool ok = true;
    uint8_t count = 42;
    nobody.Get_fanCount(ok, count);
    report.Expect("the flag says so, the value stayed", !ok && count == 42);
    report.Line("a path that nobody has:");
    Bmc::Thermal::FanReporting nowhere("", "/no/such/fans");
    report.Expect("the proxy has no service", nowhere.Service().empty());
}

void Measure(Report& report)
{
    report.Title("How long a call takes");
    Bmc::Thermal::FanReporting fans("", chassisFans);
    const double held = MedianMicroseconds(1000, [&] { fans.Get_fanCount(); });
    report.Line(Format("Get_fanCount   %6.0f us on a connection that is held", held));
    double anew = 0;
    // Another thread has another default connection, and nobody holds it there.
    std::thread([&] { anew = MedianMicroseconds(100, [&] { fans.Get_fanCount(); }); }).join();
    report.Line(Format("Get_fanCount   %6.0f us connecting anew for each call", anew));
    report.Expect("calls were measured", held > 0 && anew > 0);
}

} // namespace demo
