// One blocking exchange, against the same exchange written by hand on sd-bus. The service runs in a
// process of its own; the connection is held open. One contender per process, chosen by name.

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

using Fans = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

namespace
{

constexpr const char* service = "com.example.Bench";
constexpr const char* path = "/fans";
constexpr const char* interface = "com.tamm.bmc.Thermal.FanReporting";

void Check(int result, const char* what)
{
    if (result < 0)
    {
        std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
        std::exit(1);
    }
}

int Update(sd_bus_message* call, void*, sd_bus_error*)
{
    return sd_bus_reply_method_return(call, "i", 0);
}

int Count(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
          sd_bus_error*)
{
    return sd_bus_message_append(reply, "y", 6);
}

// Runs until its parent is gone.
[[noreturn]] void Serve(int ready)
{
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("updateFanPWMData", "sy", "i", Update, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("fanCount", "y", Count, 0, 0),
        SD_BUS_VTABLE_END,
    };
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "sd_bus_open_system");
    Check(sd_bus_add_object_vtable(bus, nullptr, path, interface, table, nullptr), "vtable");
    Check(sd_bus_request_name(bus, service, 0), "sd_bus_request_name");
    Check(write(ready, "", 1) == 1 ? 0 : -EIO, "write");
    while (true)
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

uint8_t GetByHand(sd_bus* bus)
{
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    uint8_t value = 0;
    Check(sd_bus_message_new_method_call(bus, &call, service, path,
                                         "org.freedesktop.DBus.Properties", "Get"),
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

std::function<void()> Contender(const std::string& name, sd_bus* bus)
{
    static Fans fans(service, path);
    if (name == "get-floor")
    {
        return [=]
        {
            Check(GetByHand(bus) == 6 ? 0 : -EIO, "value");
        };
    }
    if (name == "get")
    {
        return []
        {
            bool ok = false;
            uint8_t value = 0;
            fans.Get_fanCount(ok, value);
            Check(ok && value == 6 ? 0 : -EIO, "value");
        };
    }
    if (name == "call-floor")
    {
        return [=]
        {
            Check(UpdateByHand(bus), "status");
        };
    }
    if (name == "call")
    {
        return [fan = std::string("Fan1")]
        {
            bool ok = false;
            int32_t status = -1;
            fans.Call_updateFanPWMData(ok, fan, 40, status);
            Check(ok ? status : -EIO, "status");
        };
    }
    std::fprintf(stderr, "no contender '%s'\n", name.c_str());
    std::exit(2);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::fprintf(stderr, "usage: %s CONTENDER COUNT\n", argv[0]);
        return 2;
    }
    int ready[2];
    Check(pipe(ready), "pipe");
    const pid_t child = fork();
    if (child == 0)
    {
        Serve(ready[1]);
    }
    char byte = 0;
    Check(read(ready[0], &byte, 1) == 1 ? 0 : -EIO, "service");
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    const std::function<void()> work = Contender(argv[1], bus);
    for (long i = std::atol(argv[2]); i > 0; --i)
    {
        work();
    }
    sd_bus_flush_close_unref(bus);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return 0;
}
