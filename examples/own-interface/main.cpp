// Prints what a rack sensor says until it is interrupted.

#include "rack_monitor.hpp"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <csignal>
#include <cstring>
#include <iostream>

namespace
{

// Gives the loop that serves the thread's default system bus, or null.
sd_event* LoopWithBus(sd_bus*& bus)
{
    sd_event* loop = nullptr;
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);

    int r = sd_event_default(&loop);
    if (r >= 0)
    {
        r = sd_bus_default_system(&bus);
    }
    if (r >= 0)
    {
        r = sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL);
    }
    if (r >= 0)
    {
        sd_event_add_signal(loop, nullptr, SIGINT, nullptr, nullptr);
        sd_event_add_signal(loop, nullptr, SIGTERM, nullptr, nullptr);
        return loop;
    }
    std::cerr << "rack-monitor: " << std::strerror(-r) << '\n';
    return sd_event_unref(loop);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3)
    {
        std::cerr << "usage: rack-monitor PATH [SERVICE]\n";
        return 2;
    }
    // Held for the whole run, so that the calls need not connect anew each time.
    sd_bus* bus = nullptr;
    sd_event* loop = LoopWithBus(bus);
    if (loop == nullptr)
    {
        return 1;
    }
    int result = 0;
    {
        RackMonitor monitor(argv[1], argc == 3 ? argv[2] : "",
                            [](const std::string& line) { std::cout << line << std::endl; });
        std::cout << (monitor.Ready() ? "sensor found" : "no sensor yet") << std::endl;
        result = sd_event_loop(loop) < 0 ? 1 : 0;
    }
    sd_bus_detach_event(bus);
    sd_bus_flush_close_unref(bus);
    sd_event_unref(loop);
    return result;
}
