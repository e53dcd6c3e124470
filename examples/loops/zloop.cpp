// A CZMQ reactor prints the readings that another thread takes.
#include <bmcbus/attach/channel.hpp>
#include <czmq.h>

#include <cstdio>
#include <string>
#include <thread>

static std::string printed; // touched by the reactor's thread alone: no lock

// Runs on the reactor's thread, with what was given at registration and what was posted.
static int Print(void* loop, void* data, unsigned long)
{
    const char* const reading = static_cast<const char*>(data);
    std::puts(reading);
    printed += reading;
    zloop_timer_fn* const end = [](zloop_t*, int, void*) { return -1; };
    return reading[0] == '3' ? zloop_timer(static_cast<zloop_t*>(loop), 0, 1, end, nullptr) : 0;
}

int main()
{
    zloop_t* loop = zloop_new();
    {
        const bmcbus::attach::Channel channel(loop, loop, Print); // ends before the reactor
        std::thread sensor(
            []
            {
                for (const char* reading :
                     {"1: 21 C ", "2: 23 C ", "3: 22 C "}) // freed by the channel:
                    OneWayChannel_ExecuteDefault(strdup(reading), strlen(reading) + 1, 1);
            });
        zloop_start(loop);
        sensor.join();
    }
    zloop_destroy(&loop);
    return printed == "1: 21 C 2: 23 C 3: 22 C " ? 0 : 1;
}
