// One sd-event loop keeps a proxy's values current and runs what other threads post. It prints the
// machine's power when it changes and when another thread asks, and ends after one of each.
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <oneway_channel.hpp>
#include <systemd/sd-event.h>

#include <cstdio>
#include <thread>

using Power = ClientCache::com::tamm::bmc::power::PowerReporting;

static void Print(Power* power, void* happened)
{
    std::printf("%d W\n", power->Get_SystemInputPower());
    *static_cast<bool*>(happened) = true; // on the loop's thread alone, so without a lock
}

int main()
{
    sd_bus* bus = nullptr;
    sd_event* loop = nullptr;
    sd_bus_default_system(&bus); // this thread's connection, held
    sd_event_default(&loop);
    sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL);
    bool changed = false, asked = false;
    Power* const power = Power::Create("/com/tamm/bmc/power/system"); // reads all values
    power->AddCallback(Print, &changed);
    OneWayChannel_RegisterSDEvent(loop, power);
    const OneWayChannelFunction answer = [](void* registered, void* happened, unsigned long)
    {
        Print(static_cast<Power*>(registered), happened);
        return 0; // ignored
    };
    std::thread other(OneWayChannel_Execute, answer, &asked, sizeof(asked), 0);
    while (!(changed && asked) && sd_event_run(loop, 60'000'000) > 0)
        continue;
    other.join();
    OneWayChannel_Unregister();
    return changed && asked ? 0 : 1;
}
