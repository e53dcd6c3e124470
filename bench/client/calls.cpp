// Blocking exchanges, against the same exchange written by hand on sd-bus. The service runs in a
// process of its own. One contender per process. Prints nanoseconds of processor and of wall time.
//
//   bench-calls library|floor|sdbus-c++|gdbus WHAT COUNT
//
//   get, call    a property, a method; the connection is held open
//   get-taken    a property, on a connection that is opened and closed for it
//   create       a cached object, made and released; the connection is held open
//   first        a cached object, on a connection that is opened and closed for it

#include "fans.hpp"
#include "service.hpp"

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <cost.hpp>

using Fans = ClientEdge::com::tamm::bmc::Thermal::FanReporting;
using Cached = ClientCache::com::tamm::bmc::Thermal::FanReporting;

namespace
{

using namespace bench;
using namespace bench::fans;

uint8_t GetByHand(sd_bus* bus)
{
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    uint8_t value = 0;
    Check(sd_bus_message_new_method_call(bus, &call, service, path, propertiesInterface, "Get"),
          "new call");
    sd_bus_message_append_basic(call, 's', interface);
    sd_bus_message_append_basic(call, 's', "fanCount");
    Check(sd_bus_call(bus, call, 0, &error, &reply), "call");
    Check(sd_bus_message_enter_container(reply, 'v', "y"), "enter");
    Check(sd_bus_message_read_basic(reply, 'y', &value), "read");
    sd_bus_message_exit_container(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_error_free(&error);
    return value;
}

int32_t UpdateByHand(sd_bus* bus)
{
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int32_t status = -1;
    const uint8_t pwm = 40;
    Check(sd_bus_message_new_method_call(bus, &call, service, path, interface, "updateFanPWMData"),
          "new call");
    sd_bus_message_append_basic(call, 's', "Fan1");
    sd_bus_message_append_basic(call, 'y', &pwm);
    Check(sd_bus_call(bus, call, 0, &error, &reply), "call");
    Check(sd_bus_message_read_basic(reply, 'i', &status), "read");
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_error_free(&error);
    return status;
}

// Connected. Whoever calls first opens the connection, whoever unreferences last closes it.
sd_bus* Take()
{
    sd_bus* bus = nullptr;
    const char* name = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    Check(sd_bus_get_unique_name(bus, &name), "sd_bus_get_unique_name");
    return bus;
}

void CreateByHand(sd_bus* bus)
{
    Plain object(bus, path, nullptr);
    object.Read(bus, service, path);
    Check(object.fanCount == present, "value");
}

using OnConnection = void (*)(sd_bus*);

OnConnection ByHand(const std::string& what)
{
    if (what.starts_with("get"))
    {
        return [](sd_bus* bus) { Check(GetByHand(bus) == present, "value"); };
    }
    if (what == "call")
    {
        return [](sd_bus* bus) { Check(UpdateByHand(bus) == 0, "status"); };
    }
    return CreateByHand;
}

Work Library(const std::string& what)
{
    static Fans object(service, path);
    if (what.starts_with("get"))
    {
        return []
        {
            bool ok = false;
            uint8_t value = 0;
            object.Get_fanCount(ok, value);
            Check(ok && value == present, "value");
        };
    }
    if (what == "call")
    {
        return [fan = std::string("Fan1")]
        {
            bool ok = false;
            int32_t status = -1;
            object.Call_updateFanPWMData(ok, fan, 40, status);
            Check(ok && status == 0, "status");
        };
    }
    return []
    {
        Cached* const cached = Cached::Create(path, service);
        Check(cached->Get_fanCount() == present, "value");
        Cached::Release(cached);
    };
}

Work Contender(const std::string& who, const std::string& what)
{
    if (who != "floor" && who != "library")
    {
        return Peer(who, what);
    }
    const bool held = what != "first" && what != "get-taken";
    sd_bus* const bus = held ? Take() : nullptr;
    if (who == "library")
    {
        return Library(what);
    }
    return [=, byHand = ByHand(what)]
    {
        sd_bus* const own = held ? bus : Take();
        byHand(own);
        if (!held)
        {
            sd_bus_unref(own);
        }
    };
}

} // namespace

int main(int argc, char** argv)
{
    const Arguments arguments(argc, argv);
    const ServiceProcess process;
    const Work work = Contender(arguments.who, arguments.what);
    work();
    const Stopwatch stopwatch;
    for (long i = 0; i < arguments.count; ++i)
    {
        work();
    }
    stopwatch.Print(arguments.count);
    return 0;
}
