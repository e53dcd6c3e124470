// All generated classes behind one interface, so that the soak can pick them at random.

#include "classes.hpp"

#include <com/tamm/bmc/Cpu/cpu/client_cache.hpp>
#include <com/tamm/bmc/cpumetrics/CpuTelemetryPkg/client_cache.hpp>
#include <com/tamm/bmc/debug/dataorigin/client_cache.hpp>
#include <com/tamm/bmc/Memory/Dimm/client_cache.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <com/tamm/bmc/Thermal/SystemInformation/client_cache.hpp>
#include <com/tamm/bmc/Thermal/TeleMetrics/client_cache.hpp>
#include <com/tamm/ovrik/wharfd/OSLogicalNetworkInterface/client_cache.hpp>
#include <com/tamm/ovrik/wharfd/OSLogicalNetworkInterfaces/client_cache.hpp>

#include <tuple>

namespace soak
{
namespace
{

template <class T>
kit::Value Keep(const kit::Value& sent)
{
    return kit::Value(sent.Get<T>());
}

template <class Class, class... T>
std::vector<Kept> Read(Class& object, void (Class::*get)(T&...))
{
    std::tuple<T...> values;
    return std::apply(
        [&](T&... each)
        {
            (object.*get)(each...);
            return std::vector<Kept>{{kit::Value(each), Keep<T>}...};
        },
        values);
}

template <class Class>
class LiveOf : public Live
{
  public:
    explicit LiveOf(Class* made) : object(made) {}
    ~LiveOf() override { Class::Release(object); }
    LiveOf(const LiveOf&) = delete;
    LiveOf& operator=(const LiveOf&) = delete;

    std::vector<Kept> Values() override { return Read(*object, &Class::Get); }
    bool Ready() override { return object->Ready(); }
    uint32_t SignalCount() override { return object->SignalCount(); }
    void Forget() override { object = nullptr; }

  private:
    Class* object;
};

// User data that a callback must get back.
int token = 0;

template <class Class>
void CountCall(Class* object, void* data)
{
    Callbacks() += data == &token && !object->Path().empty() ? 1U : 0U;
}

template <class Class>
void ReleaseSelf(Class* object, void* data)
{
    CountCall(object, data);
    Class::Release(object);
}

template <class Class>
std::unique_ptr<Live> MakeCached(Random& random, const Place& place)
{
    const std::string service = random.OneIn(2) ? place.service : "";
    const auto callback = random.OneIn(2) ? CountCall<Class> : nullptr;
    return std::make_unique<LiveOf<Class>>(
        Class::Create(place.path, service, callback, &token, random.OneIn(2)));
}

template <class Class>
std::unique_ptr<Live> MakeSubscriber(Random& random, const Place& place)
{
    const auto callback = random.OneIn(2) ? CountCall<Class> : nullptr;
    return std::make_unique<LiveOf<Class>>(Class::Create(place.path, callback, &token));
}

template <class Class>
void MakeForOneSignal(const Place& place)
{
    Class::Create(place.path, ReleaseSelf<Class>, &token);
}

template <class Class>
Kind Cached(const char* interface)
{
    return {interface, "", MakeCached<Class>, MakeForOneSignal<Class>, Class::Cleanup};
}

template <class Class>
Kind Subscriber(const char* interface, const char* signal)
{
    return {interface, signal, MakeSubscriber<Class>, MakeForOneSignal<Class>, Class::Cleanup};
}

} // namespace

size_t& Callbacks()
{
    static size_t count = 0;
    return count;
}

std::vector<Kind> Classes()
{
    namespace bmc = ClientCache::com::tamm::bmc;
    namespace wharfd = ClientCache::com::tamm::ovrik::wharfd;
    return {
        Cached<bmc::Thermal::FanReporting>("com.tamm.bmc.Thermal.FanReporting"),
        Cached<bmc::Thermal::SystemInformation>("com.tamm.bmc.Thermal.SystemInformation"),
        Cached<bmc::debug::dataorigin>("com.tamm.bmc.debug.dataorigin"),
        Cached<bmc::power::PowerReporting>("com.tamm.bmc.power.PowerReporting"),
        Cached<wharfd::OSLogicalNetworkInterface>(
            "com.tamm.ovrik.wharfd.OSLogicalNetworkInterface"),
        Cached<wharfd::OSLogicalNetworkInterfaces>(
            "com.tamm.ovrik.wharfd.OSLogicalNetworkInterfaces"),
        Subscriber<ClientCache::FanReporting::notifyFanReportingData>(
            "com.tamm.bmc.Thermal.FanReporting", "notifyFanReportingData"),
        Subscriber<ClientCache::TeleMetrics::TeleMetricsSignal>("com.tamm.bmc.Thermal.TeleMetrics",
                                                                "TeleMetricsSignal"),
        Subscriber<ClientCache::PowerReporting::NotifyPwrReportingData>(
            "com.tamm.bmc.power.PowerReporting", "NotifyPwrReportingData"),
        Subscriber<ClientCache::CpuTelemetryPkg::CpuTelemetryPkg1Change>(
            "com.tamm.bmc.cpumetrics.CpuTelemetryPkg", "CpuTelemetryPkg1Change"),
        Subscriber<ClientCache::CpuTelemetryPkg::SecondSignal>(
            "com.tamm.bmc.cpumetrics.CpuTelemetryPkg", "SecondSignal"),
        Subscriber<ClientCache::cpu::PowerThermalCpuTelemetry>("com.tamm.bmc.Cpu.cpu",
                                                               "PowerThermalCpuTelemetry"),
        Subscriber<ClientCache::Dimm::DIMMPowerTelemetry>("com.tamm.bmc.Memory.Dimm",
                                                          "DIMMPowerTelemetry"),
        Subscriber<ClientCache::dataorigin::debugsignal>("com.tamm.bmc.debug.dataorigin",
                                                         "debugsignal"),
    };
}

} // namespace soak
