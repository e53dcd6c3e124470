// One sd-event loop keeps a proxy's values current and runs what other threads post. It prints the
// machine's power when it changes and when another thread asks, and ends after one of each.
#include <bmcbus/attach/channel.hpp>
#include <bmcbus/attach/sd_event.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>

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
    sd_event* loop = nullptr;
    sd_event_default(&loop);
    const bmcbus::attach::SdEvent attached(loop); // this thread's connection, held
    bool changed = false, asked = false;
    Power* const power = Power::Create("/com/tamm/bmc/power/system"); // reads all values
    power->AddCallback(Print, &changed);
    const bmcbus::attach::Channel channel(loop, power);
    const OneWayChannelFunction answer = [](void* registered, void* happened, unsigned long)
    {
        Print(static_cast<Power*>(registered), happened);
        return 0; // ignored
    };
    std::thread other(OneWayChannel_Execute, answer, &asked, sizeof(asked), 0);
    while (!(changed && asked) && sd_event_run(loop, 60'000'000) > 0)
        continue;
    other.join();
    return changed && asked ? 0 : 1;
}
