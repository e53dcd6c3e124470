// Fans follow the temperature until a client sets one; air temperatures follow the model until a
// client writes them.

#include "thermal.hpp"

#include <map>
#include <tuple>

namespace simulator
{
namespace
{

constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";
constexpr const char* telemetryInterface = "com.tamm.bmc.Thermal.TeleMetrics";

// Duty cycle asked for, duty cycle measured, hundreds of turns a minute, healthy.
using FanTable = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;

FanTable Table(const std::vector<Fan>& fans)
{
    FanTable table;
    for (const Fan& fan : fans)
    {
        table[fan.name] = {fan.asked, fan.measured, static_cast<uint8_t>(fan.Rpm() / 100),
                           fan.healthy};
    }
    return table;
}

} // namespace

Thermal::Thermal(Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Thermal", "/com/tamm/bmc/thermal", setting),
    model(machine),
    chassisFans(AddFans("/com/tamm/bmc/thermal/fans/chassis", machine.chassisFans)),
    supplyFans(AddFans("/com/tamm/bmc/thermal/fans/supplies", machine.supplyFans)),
    air(Add("/com/tamm/bmc/thermal/system", "com.tamm.bmc.Thermal.SystemInformation",
            {{"Key", "System.Embedded.1"}})),
    telemetry(Add("/com/tamm/bmc/thermal/telemetry", telemetryInterface))
{
    air.OnWrite("ExhaustTemperature", [this](const Value&) { exhaustWritten = true; });
    air.OnWrite("SystemAirflow", [this](const Value&) { airflowWritten = true; });
    air.OnCall("GetSystemThermalInformation",
               [this](const Call&) -> std::vector<Value> {
                   return {Whole(model.inlet), Whole(model.exhaust)};
               });
    Publish();
}

Object& Thermal::AddFans(const std::string& path, std::vector<Fan>& fans)
{
    Object& object = Add(path, fanInterface);
    object.OnCall("updateFanPWMData",
                  [this, &object, &fans](const Call& call)
                  {
                      const bool known = model.SetFan(fans, call.arguments[0].Get<std::string>(),
                                                      call.arguments[1].Get<uint8_t>());
                      if (known)
                      {
                          Update(object, {{"fanPWMData", Table(fans)}});
                      }
                      return std::vector<Value>{known ? 0 : -1};
                  });
    return object;
}

void Thermal::Publish()
{
    PublishFans(chassisFans, model.chassisFans);
    PublishFans(supplyFans, model.supplyFans);
    PublishAir();
    Emit(telemetry, telemetryInterface, "TeleMetricsSignal", Telemetry());
}

void Thermal::PublishFans(Object& object, const std::vector<Fan>& fans)
{
    const NamedValues values = {{"fanCount", fans.size()}, {"fanPWMData", Table(fans)}};
    Update(object, values);
    Emit(object, fanInterface, "notifyFanReportingData", values);
}

void Thermal::PublishAir()
{
    NamedValues values;
    if (!exhaustWritten)
    {
        values.emplace_back("ExhaustTemperature", Whole(model.exhaust));
    }
    if (!airflowWritten)
    {
        values.emplace_back("SystemAirflow", Whole(model.airflow));
    }
    Update(air, values);
}

NamedValues Thermal::Telemetry() const
{
    const double output = model.OutputWatts();
    const double lost = model.input.now - output;
    const std::vector<std::pair<std::string, Value>> figures = {
        {"itue", model.input.now / (output - model.FanWatts())},
        {"pwrToCoolRatio", model.FanWatts() / output},
        {"sysAirFlowEff", model.airflow / output},
        {"psuEff", output / model.input.now},
        {"psuHeatDiss", Whole(lost)},
        {"computePwr", Whole(model.CpuWatts() + model.DimmWatts())},
        {"sysRackTempDelta", Whole(model.exhaust - model.inlet)},
        {"sysNetAirFlow", Whole(model.airflow)},
        {"sysAirFlowPerFanPwr", model.airflow / model.FanWatts()},
        {"sysAirFlowPerSysInpPwr", model.airflow / model.input.now},
        {"sysAirFlowPerSysOutPwr", model.airflow / output},
    };
    NamedValues values = {{"timeStamp", model.elapsed}};
    for (const auto& [name, value] : figures)
    {
        values.emplace_back(name + "Value", value);
        values.emplace_back(name + "Enabled", true);
        values.emplace_back(name + "Valid", true);
    }
    return values;
}

} // namespace simulator
