// The flat functions: what the members do, with exceptions made into results where that is
// promised.

#include "threads/oneway_channel_internal.hpp"

using infrautils::OneWayChannel;
using infrautils::OneWayChannelFlat;
namespace channel = infrautils::channel;

namespace
{

// A null pointer gives an empty function.
OneWayChannel::Function Wrap(OneWayChannelFunction function)
{
    return function != nullptr ? OneWayChannel::Function(function) : OneWayChannel::Function();
}

int RegisterZLoop(const char* name, zloop_t* loop, void* context, OneWayChannelFunction function)
{
    try
    {
        OneWayChannel::GetInstance()->RegisterZLoop(loop, context, Wrap(function));
        return channel::success;
    }
    catch (const std::exception& e)
    {
        CHANNEL_LOG_AS(failure, name, "Error in Register : %s", e.what());
        return channel::registerFailed;
    }
}

} // namespace

int OneWayChannel_RegisterZLoop(zloop_t* loop, void* context)
{
    return RegisterZLoop(__func__, loop, context, nullptr);
}

int OneWayChannel_RegisterZLoopWithDefaultFunction(zloop_t* loop, void* context,
                                                   OneWayChannelFunction function)
{
    return RegisterZLoop(__func__, loop, context, function);
}

int OneWayChannel_GetChannelFDAndSelfRegister(int* fd, void* context)
{
    return OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(fd, context, nullptr);
}

int OneWayChannel_GetChannelFDAndSelfRegisterWithDefaultFunction(int* fd, void* context,
                                                                 OneWayChannelFunction function)
{
    OneWayChannelFlat::RegisterUserFD(fd, context, Wrap(function));
    return channel::success;
}

[[gnu::hot]] int OneWayChannel_Execute(OneWayChannelFunction function, void* data,
                                       unsigned long size, int freeData)
{
    return OneWayChannelFlat::Post(Wrap(function), data, size, freeData != 0);
}

int OneWayChannel_ExecuteDefault(void* data, unsigned long size, int freeData)
{
    return OneWayChannel::GetInstance()->Execute(data, size, freeData != 0);
}

int OneWayChannel_Process(int fd)
{
    try
    {
        return OneWayChannelFlat::Process(fd);
    }
    catch (const std::exception& e)
    {
        CHANNEL_LOG(failure, "Error in Process : %s", e.what());
        return channel::processFailed;
    }
}

int OneWayChannel_WakeOncePerBurst(void)
{
    return OneWayChannel::GetInstance()->WakeOncePerBurst();
}

void OneWayChannel_Unregister(void)
{
    try
    {
        OneWayChannel::GetInstance()->Unregister();
    }
    catch (const std::exception& e)
    {
        CHANNEL_LOG(failure, "Error in Unregister : %s", e.what());
    }
}

void OneWayChannel_IsRegistered(bool* registered, bool* tidValid, pthread_t* tid)
{
    const OneWayChannel* const self = OneWayChannel::GetInstance();
    *registered = channel::Load(self->registrationType) != 0;
    *tidValid = channel::Load(self->loopTidValid);
    *tid = channel::Load(self->loopTid);
}
