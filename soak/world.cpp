// The bus, the simulator on it and the soak's own connection; whatever breaks is put back here.

#include "world.hpp"

#include <cstring>

namespace soak
{
namespace
{

constexpr const char* simulatorName = "com.tamm.bmc.Simulator";
constexpr uint64_t pause = 3000; // microseconds

struct Unreference
{
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, Unreference>;

void Check(int result, const std::string& what)
{
    Require(result >= 0, what + ": " + std::strerror(-result));
}

} // namespace

World::World(uint64_t seed) : nextSeed(seed)
{
    StartSimulator();
    Connect();
    RegisterChannel();
}

World::~World()
{
    Disconnect();
}

void World::StartSimulator()
{
    const std::vector<std::string> options = {"--period", "0", "--own-managers", "--seed",
                                              std::to_string(nextSeed++ % 1000000)};
    simulator = std::make_unique<kit::Simulator>(options);
    down.clear();
}

void World::RegisterChannel()
{
    Require(loop.Register(nullptr) == 0, "the channel is not free");
}

void World::Connect()
{
    Check(sd_bus_default_system(&connection), "sd_bus_default_system");
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(connection, &name), "sd_bus_get_unique_name");
    Check(sd_bus_attach_event(connection, loop.raw, SD_EVENT_PRIORITY_NORMAL),
          "sd_bus_attach_event");
}

void World::Disconnect(bool inherited)
{
    if (connection == nullptr)
    {
        return;
    }
    sd_bus_detach_event(connection);
    if (inherited)
    {
        sd_bus_unref(connection);
    }
    else
    {
        sd_bus_flush_close_unref(connection);
    }
    connection = nullptr;
}

void World::Turn()
{
    Check(sd_event_run(loop.raw, pause), "sd_event_run");
    int handled = 0;
    while ((handled = sd_event_run(loop.raw, 0)) > 0)
    {
    }
    Check(handled, "sd_event_run");
}

void World::Wait(const std::string& what, const test::Condition& done)
{
    Require(loop.Run(done), "waited in vain until " + what);
}

std::vector<kit::Value> World::Call(const std::string& service, const std::string& path,
                                    const std::string& interface, const std::string& member,
                                    const std::vector<kit::Value>& arguments)
{
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_method_call(connection, &raw, service.c_str(), path.c_str(),
                                         interface.c_str(), member.c_str()),
          member);
    const MessagePtr call(raw);
    for (const kit::Value& argument : arguments)
    {
        argument.Append(raw);
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    if (sd_bus_call(connection, raw, 0, &error, &answer) < 0)
    {
        const std::string words = std::string(error.name) + ": " + error.message;
        sd_bus_error_free(&error);
        throw Failure(member + " of " + service + " at " + path + ": " + words);
    }
    const MessagePtr reply(answer);
    return kit::Value::ReadAll(answer);
}

void World::Control(const std::string& method, const std::vector<kit::Value>& arguments)
{
    Call(simulatorName, "/com/tamm/bmc/simulator", simulatorName, method, arguments);
}

void World::StopService(const std::string& service)
{
    Control("StopService", {service});
    down.insert(service);
}

void World::CrashService(const std::string& service)
{
    Control("CrashService", {service});
    down.insert(service);
}

void World::StartService(const std::string& service)
{
    Control("StartService", {service});
    down.erase(service);
}

void World::StartAllServices()
{
    while (!down.empty())
    {
        StartService(std::string(*down.begin()));
    }
}

void World::KillServices()
{
    simulator.reset();
    StartSimulator();
}

void World::KillBus()
{
    bus.Kill();
    Wait("the connection notices that the bus has gone",
         [this] { return sd_bus_is_open(connection) <= 0; });
}

void World::RestartBus()
{
    Disconnect();
    simulator.reset();
    bus.Restart();
    StartSimulator();
    Connect();
}

} // namespace soak
