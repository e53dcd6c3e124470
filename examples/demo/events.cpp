// The event log.

#include "acts.hpp"

#include <qzlog_via_dbus.hpp>

#include <systemd/sd-bus.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace demo
{
namespace
{

// The first line of `file` that begins with `start`, waited for.
std::string LineOf(const std::string& file, const std::string& start)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < end)
    {
        std::ifstream input(file);
        for (std::string line; std::getline(input, line);)
        {
            if (line.starts_with(start))
            {
                return line;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return "";
}

} // namespace

void FileEvent(Report& report, const std::string& simulatorOutput)
{
    report.Title("An entry in the event log");
    sd_bus* raw = nullptr;
    if (sd_bus_default_system(&raw) < 0)
    {
        report.Expect("a connection", false);
        return;
    }
    bmcbus::Bus bus(raw, std::false_type());
    QZLogViaDbus::Log(bus, 12, 3, 1, "FAN0001", "A fan is slow", "Fan.Embedded.3",
                      {"3", "2400 rpm"});
    const std::string line = LineOf(simulatorOutput, "event: agent=12 ");
    report.Expect("the daemon received: " + line,
                  line == "event: agent=12 category=3 severity=1 id=[FAN0001] message=[A fan is "
                          "slow] FQDD=[Fan.Embedded.3] arg=[3] arg=[2400 rpm]");
}

} // namespace demo
