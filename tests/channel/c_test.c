/* The flat interface as a C program sees it. */
#include <oneway_channel.hpp>

#include <poll.h>

static int add(void* context, void* data, unsigned long size)
{
    *(unsigned long*)context += size;
    return data != NULL;
}

static int useFromC(unsigned long* total)
{
    int fd = -1;
    bool registered = false;
    bool tidValid = true;
    pthread_t tid = 0;
    if (OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(&fd, total, add) != 0 ||
        OneWayChannel_Execute(add, NULL, 40, 0) != 0 ||
        OneWayChannel_ExecuteDefault(NULL, 2, 0) != 0)
    {
        return 1;
    }
    struct pollfd end = {.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&end, 1, 60000) != 1 || OneWayChannel_Process(fd) != 0)
    {
        return 2;
    }
    OneWayChannel_IsRegistered(&registered, &tidValid, &tid);
    OneWayChannel_Unregister();
    return registered && !tidValid ? 0 : 3;
}

int main(void)
{
    unsigned long total = 0;
    const int result = useFromC(&total);
    return total == 42 ? result : 4;
}
