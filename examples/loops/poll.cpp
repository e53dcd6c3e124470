// A poll loop of the program's own, with the channel as one descriptor among others: here a
// timer's. It adds up what another thread posts, and ends when the timer has fired, too.
#include <oneway_channel.hpp>
#include <poll.h>
#include <sys/timerfd.h>

#include <cstdio>
#include <thread>

static int Add(void* sum, void* value, unsigned long) // runs in OneWayChannel_Process()
{
    return *static_cast<int*>(sum) += *static_cast<const int*>(value);
}

int main()
{
    int sum = 0, channel = -1, values[] = {1, 2, 3, 4};
    OneWayChannel_GetChannelFDAndSelfRegister(&channel, &sum); // not to be closed
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec soon{{}, {0, 1000000}};
    timerfd_settime(timer, 0, &soon, nullptr);
    std::thread other(
        [&]
        {
            for (int& value : values) // not copied: each must live until it was added
                OneWayChannel_Execute(Add, &value, sizeof(value), 0);
        });
    pollfd ends[] = {{channel, POLLIN, 0}, {timer, POLLIN, 0}};
    while ((sum < 10 || ends[1].fd == timer) && poll(ends, 2, 60000) > 0)
    {
        if (ends[0].revents != 0)
            OneWayChannel_Process(channel);
        if (ends[1].revents != 0)
            ends[1].fd = -1; // poll() passes over it
    }
    other.join();
    OneWayChannel_Unregister();
    std::printf("sum %d, timer %s\n", sum, ends[1].fd < 0 ? "fired" : "silent");
    return sum == 10 && ends[1].fd < 0 ? 0 : 1;
}
