#pragma once

// What the flat functions need of the channel beyond its public members.

#include <oneway_channel.hpp>

namespace infrautils
{

namespace channel
{

// Results of the operations and the flat functions.
enum Result : int
{
    success = 0,
    processFailed = 1,
    alreadyRegistered = 2,
    notPossible = 3,
    pollerRefused = 4,
    registerFailed = 5,
    writeFailed = 6,
    readFailed = 7
};

} // namespace channel

struct OneWayChannelFlat
{
    static void RegisterUserFD(int* fd, void* context, OneWayChannel::Function function);
    static int Process(int fd);
    static void State(bool& registered, bool& tidValid, pthread_t& tid);
};

} // namespace infrautils
