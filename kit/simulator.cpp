// The simulator runs as a program, and its control interface is called on a connection of our own.

#include <bmcbus/testing/simulator.hpp>

#include "connect.hpp"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace bmcbus::testing
{
namespace
{

constexpr const char* name = "com.tamm.bmc.Simulator";

std::string& Program()
{
    static std::string path = "bmcbus-simulator";
    return path;
}

std::vector<std::string> Command(const std::vector<std::string>& options)
{
    const char* given = std::getenv("BMCBUS_SIMULATOR");
    std::vector<std::string> command = {given != nullptr ? given : Program()};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

} // namespace

Simulator::Simulator(const std::vector<std::string>& options) : process(Command(options))
{
    if (!process.Says("bmcbus-simulator: ready"))
    {
        throw std::runtime_error("bmcbus-simulator did not start: " + process.Output());
    }
}

void Simulator::SetProgram(const std::string& path)
{
    Program() = path;
}

void Simulator::Step() const
{
    Control("Step");
}

void Simulator::Control(const std::string& method, const std::vector<Value>& arguments) const
{
    const Owned<sd_bus> bus = Connect(SystemBusAddress());
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_method_call(bus.get(), &raw, name, "/com/tamm/bmc/simulator", name,
                                         method.c_str()),
          method);
    const Owned<sd_bus_message> call(raw);
    for (const Value& argument : arguments)
    {
        argument.Append(raw);
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    if (sd_bus_call(bus.get(), raw, 0, &error, nullptr) < 0)
    {
        const std::string words = std::string(error.name == nullptr ? "" : error.name) + ": " +
                                  (error.message == nullptr ? "" : error.message);
        sd_bus_error_free(&error);
        throw std::runtime_error(method + ": " + words);
    }
}

int Simulator::Stop()
{
    process.Signal(SIGTERM);
    return process.Wait();
}

} // namespace bmcbus::testing
