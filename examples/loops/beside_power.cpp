// Runs a program on a bus of its own, beside a service whose power readings keep changing, and ends
// as the program does:
//
//   beside_power PROGRAM

#include <bmcbus/testing.hpp>

#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <exception>
#include <iostream>

using namespace bmcbus::testing;

namespace
{

constexpr const char* path = "/com/tamm/bmc/power/system";
constexpr const char* interface = "com.tamm.bmc.power.PowerReporting";

int Run(char** program)
{
    const PrivateBus bus;
    FakeMapper mapper;
    FakeService power("com.example.Power", path, {interface}, {{"SystemInputPower", 500}});
    mapper.Add(path, "com.example.Power", {interface});

    pid_t child = -1;
    if (posix_spawn(&child, program[0], nullptr, nullptr, program, environ) != 0)
    {
        std::cerr << program[0] << " does not start\n";
        return 1;
    }
    int watts = 500;
    int status = 0;
    const auto ended = [&]
    {
        watts = 500 + (watts + 1) % 100;
        power->Set("SystemInputPower", watts);
        return waitpid(child, &status, WNOHANG) == child;
    };
    if (!Until(ended))
    {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: beside_power PROGRAM\n";
        return 2;
    }
    try
    {
        return Run(argv + 1);
    }
    catch (const std::exception& error)
    {
        std::cerr << "beside_power: " << error.what() << '\n';
        return 1;
    }
}
