// Queues GetAll and handles its reply; what depends on the caller's variant is in the header.

#include <async_ops.hpp>

#include "bus/bus.hpp"
#include "bus/get_all_reply.hpp"
#include "bus/message_size.hpp"
#include "bus/text.hpp"
#include "log.hpp"

#include <cerrno>
#include <stdexcept>

// Lines written here carry the header's name, as the functions that callers see stand there.
#define ASYNC_LOG(level, function, text, ...)                                                      \
    BMCBUS_LOG_IN("async_ops.hpp", level, bmcbus::log::librarySource, function,                    \
                  text __VA_OPT__(, ) __VA_ARGS__)

namespace Async::Ops::detail
{
namespace
{

constexpr const char* queuing = "GetAllProperties";
constexpr const char* handling = "Internal_GetAllProperties_Callback";

int Queue(sd_bus* bus, sd_bus_slot** slot, const std::string& service, const std::string& path,
          const std::string& interface, sd_bus_message_handler_t handler, void* record)
{
    if (!bmcbus::IsBusText(service) || !bmcbus::IsBusText(path) || !bmcbus::IsBusText(interface))
    {
        return -EINVAL;
    }
    if (!bmcbus::Fits(service.size() + path.size() + interface.size()))
    {
        return -EMSGSIZE;
    }
    return sd_bus_call_method_async(bus, slot, service.c_str(), path.c_str(),
                                    "org.freedesktop.DBus.Properties", "GetAll", handler, record,
                                    "s", interface.c_str());
}

// A callback that throws is told of the failure once; what it throws then is only logged.
void CompleteFailed(const Reply& reply)
{
    try
    {
        reply.complete(reply.self, false);
    }
    catch (const std::exception& error)
    {
        LogFailure(error);
    }
}

} // namespace

bmcbus::Slot QueueGetAll(sd_bus* bus, const std::string& service, const std::string& path,
                         const std::string& interface, sd_bus_message_handler_t handler,
                         void* record, void (*release)(void* record))
{
    std::unique_ptr<void, void (*)(void*)> owned(release != nullptr ? record : nullptr, release);
    try
    {
        sd_bus_slot* raw = nullptr;
        const int irv = Queue(bus, &raw, service, path, interface, handler, record);
        if (irv < 0)
        {
            ASYNC_LOG(error, queuing, "sd_bus_call_method_async returned an error, irv=%d", irv);
            throw std::runtime_error("sd_bus_call_method_async returned an error");
        }
        if (release != nullptr)
        {
            sd_bus_slot_set_destroy_callback(raw, release);
            static_cast<void>(owned.release());
        }
        return bmcbus::Slot(raw);
    }
    catch (const std::exception& error)
    {
        ASYNC_LOG(error, queuing, "ex: %s", error.what());
        throw;
    }
}

void Detach(bmcbus::Slot slot)
{
    sd_bus_slot_set_floating(slot.get(), true);
}

bool LogReply(sd_bus_message* reply)
{
    ASYNC_LOG(info, handling, "enter");
    const sd_bus_error* failure = sd_bus_message_get_error(reply);
    if (failure != nullptr && failure->name != nullptr)
    {
        ASYNC_LOG(error, handling, "error name=[%s]", failure->name);
    }
    if (failure != nullptr && failure->message != nullptr)
    {
        ASYNC_LOG(error, handling, "error message=[%s]", failure->message);
    }
    return failure == nullptr;
}

void LogRead()
{
    ASYNC_LOG(info, handling, "results read ok");
}

void LogFailure(const std::exception& error)
{
    ASYNC_LOG(error, handling, "ex: %s", error.what());
}

void LogEnd()
{
    ASYNC_LOG(info, handling, "leave");
}

int HandleReply(sd_bus_message* message, const Reply& reply)
{
    if (!LogReply(message))
    {
        CompleteFailed(reply);
        return 1;
    }
    try
    {
        reply.decode(reply.self, message);
        LogRead();
        reply.complete(reply.self, true);
    }
    catch (const std::exception& error)
    {
        LogFailure(error);
        CompleteFailed(reply);
    }
    LogEnd();
    return 1;
}

} // namespace Async::Ops::detail
