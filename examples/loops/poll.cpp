// A poll loop of the program's own, with the channel as one descriptor among others: here a
// timer's. It adds up what another thread posts, and ends when the timer has fired, too.
#include <bmcbus/attach/channel.hpp>
#include <sys/timerfd.h>

#include <cstdio>
#include <thread>

static int Add(void* sum, void* value, unsigned long) // runs in Dispatch()
{
    return *static_cast<int*>(sum) += *static_cast<const int*>(value);
}

int main()
{
    int sum = 0, values[] = {1, 2, 3, 4};
    bmcbus::attach::PollChannel channel(&sum);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec soon{{}, {0, 1000000}};
    timerfd_settime(timer, 0, &soon, nullptr);
    std::thread other(
        [&]
        {
            for (int& value : values) // not copied: each must live until it was added
                OneWayChannel_Execute(Add, &value, sizeof(value), 0);
        });
    pollfd ends[] = {channel.Prepare(), {timer, POLLIN, 0}};
    while ((sum < 10 || ends[1].fd == timer) && poll(ends, 2, 60000) > 0)
    {
        channel.Dispatch(ends[0]);
        if (ends[1].revents != 0)
            ends[1].fd = -1; // poll() passes over it
    }
    other.join();
    std::printf("sum %d, timer %s\n", sum, ends[1].fd < 0 ? "fired" : "silent");
    return sum == 10 && ends[1].fd < 0 ? 0 : 1;
}
