// A client of a BMC, from finding its services to following their values. Run it by scripts/demo.

#include "acts.hpp"

#include <CLI/CLI.hpp>
#include <systemd/sd-bus.h>

#include <iostream>

int main(int argc, char** argv)
{
    unsigned int seconds = 4;
    std::string simulatorOutput;
    CLI::App app("Shows a client of bmcbus-simulator at work.", "bmcbus-demo");
    app.add_option("--seconds", seconds, "How long to follow live values (4)")
        ->check(CLI::Range(1, 3600))
        ->option_text("N");
    app.add_option("--simulator-output", simulatorOutput,
                   "The file that has the simulator's output")
        ->required()
        ->option_text("FILE");
    CLI11_PARSE(app, argc, argv);

    // Whoever makes more than one call holds the thread's connection; otherwise each call connects.
    sd_bus* bus = nullptr;
    if (const int result = sd_bus_default_system(&bus); result < 0)
    {
        std::cerr << "bmcbus-demo: there is no bus\n";
        return 1;
    }
    demo::Report report;
    demo::Discover(report);
    demo::ReadAndWrite(report);
    demo::CallMethods(report);
    demo::Fail(report);
    demo::Measure(report);
    demo::Live(report, seconds);
    demo::FileEvent(report, simulatorOutput);
    demo::ChangeThreads(report);
    sd_bus_flush_close_unref(bus);
    return report.Verdict() ? 0 : 1;
}
