// bmcbus-simulator: a baseboard management controller for the workstation.

#include "machine.hpp"

#include <CLI/CLI.hpp>
#include <systemd/sd-daemon.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace
{

constexpr const char* about =
    "Simulates a baseboard management controller on the system bus (DBUS_SYSTEM_BUS_ADDRESS):\n"
    "services with fans, power, processors, memory and network interfaces whose values move, the\n"
    "event log, and the object mapper that finds them. SIGINT and SIGTERM end it.\n\n"
    "Things can be broken by hand: busctl introspect com.tamm.bmc.Simulator "
    "/com/tamm/bmc/simulator";

struct LoopUnref
{
    void operator()(sd_event* loop) const { sd_event_unref(loop); }
};
using Loop = std::unique_ptr<sd_event, LoopUnref>;

// A loop that SIGINT and SIGTERM end with status 0.
Loop MakeLoop()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    sd_event* raw = nullptr;
    if (sd_event_new(&raw) < 0)
    {
        throw std::runtime_error("no event loop");
    }
    Loop loop(raw);
    for (const int number : {SIGINT, SIGTERM})
    {
        if (sd_event_add_signal(raw, nullptr, number, nullptr, nullptr) < 0)
        {
            throw std::runtime_error("signals cannot be received");
        }
    }
    return loop;
}

int Run(const simulator::Options& options)
{
    const Loop loop = MakeLoop();
    simulator::Machine machine(options, loop.get());
    std::cout << "bmcbus-simulator: ready" << std::endl;
    sd_notify(0, "READY=1");
    const int status = sd_event_loop(loop.get());
    sd_notify(0, "STOPPING=1");
    if (status < 0)
    {
        throw std::system_error(-status, std::generic_category(), "sd_event_loop");
    }
    if (status > 0)
    {
        throw std::runtime_error(machine.Failure());
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    simulator::Options options;
    bool noMapper = false;
    CLI::App app(about, "bmcbus-simulator");
    app.add_option("--period", options.period,
                   "Milliseconds between two sets of values (1000); 0: only Step calls move them")
        ->check(CLI::Range(0, 3600000))
        ->option_text("MS");
    app.add_option("--seed", options.seed,
                   "Start of the random numbers (1): same seed, same values")
        ->option_text("N");
    app.add_flag("--own-managers", options.ownManagers,
                 "Announce objects from their own paths, where cached proxies listen, instead of\n"
                 "from the root of each service");
    app.add_flag("--no-mapper", noMapper, "Leave the object mapper out");
    CLI11_PARSE(app, argc, argv);
    options.mapper = !noMapper;
    try
    {
        return Run(options);
    }
    catch (const std::exception& failure)
    {
        std::cerr << "bmcbus-simulator: " << failure.what() << '\n';
        if (std::getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr)
        {
            std::cerr
                << "DBUS_SYSTEM_BUS_ADDRESS is not set, so this was the machine's own bus, which "
                   "takes names only by a policy.\nA bus of its own: dbus-run-session sh -c "
                   "'DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS bmcbus-simulator'\n";
        }
        return 1;
    }
}
