// The object mapper's answers to what was asked without waiting. Whatever comes, the caller's
// callback runs once: with the services, or with what went wrong in the log.

#include "bus/object_mapper_internal.hpp"
#include "bus/object_mapper_pending.hpp"

#include <exception>
#include <memory>

namespace ObjectMapper
{

namespace
{

using internal::Pending;
using internal::Read;
using Wrappers::CallbackRecord;
using Wrappers::GetObjectCallback;
using Wrappers::GetObjectCallback2;
using Wrappers::ServiceCallback;
using Wrappers::ServiceCallback2;
using Wrappers::ServiceMap;

// The four kinds of callback behind one call: what does not concern a kind is left out.
void Complete(const CallbackRecord<GetObjectCallback>& to, bool success, bool, ServiceMap& services)
{
    to.callback(success, services, to.context);
}

void Complete(const CallbackRecord<GetObjectCallback2>& to, bool success, bool timedOut,
              ServiceMap& services)
{
    to.callback(success, timedOut, services, to.context);
}

void Complete(const CallbackRecord<ServiceCallback>& to, bool success, bool, std::string& service)
{
    to.callback(success, service, to.context);
}

void Complete(const CallbackRecord<ServiceCallback2>& to, bool success, bool timedOut,
              std::string& service)
{
    to.callback(success, timedOut, service, to.context);
}

// Tells of a failure, where an exception has nowhere to go but the log.
template <class Nothing, class Callback>
void CompleteFailed(const char* function, const CallbackRecord<Callback>& to, bool timedOut)
{
    Nothing none;
    try
    {
        Complete(to, false, timedOut, none);
    }
    catch (const std::exception& e)
    {
        LOG_FOR(function, error, "ex: %s", e.what());
    }
}

// Copies the record of a pending call and frees it. A record that we did not queue ourselves is a
// plain one; nothing is known of its deadline.
template <class Callback>
Pending<Callback> Take(sd_bus_message* reply, void* record)
{
    sd_bus_slot* slot = sd_bus_get_current_slot(sd_bus_message_get_bus(reply));
    sd_bus_destroy_t drop = nullptr;
    if (slot != nullptr && sd_bus_slot_get_userdata(slot) == record)
    {
        sd_bus_slot_get_destroy_callback(slot, &drop);
    }
    if (drop == Pending<Callback>::Drop)
    {
        sd_bus_slot_set_userdata(slot, nullptr);
        return *std::unique_ptr<Pending<Callback>>(static_cast<Pending<Callback>*>(record));
    }
    using Record = CallbackRecord<Callback>;
    return {*std::unique_ptr<Record>(static_cast<Record*>(record)), nullptr, {}};
}

// sd-bus names its own timeout of a queued call as it names a peer that went away.
bool TimedOut(const sd_bus_error* error, const bmcbus::Deadline& deadline)
{
    return sd_bus_error_has_name(error, SD_BUS_ERROR_TIMEOUT) != 0 ||
           (sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY) != 0 && deadline.Passed());
}

void LogErrorReply(const char* function, const sd_bus_error* reply)
{
    if (reply->name != nullptr)
    {
        LOG_FOR(function, error, "error name=[%s]", reply->name);
    }
    if (reply->message != nullptr)
    {
        LOG_FOR(function, error, "error message=[%s]", reply->message);
    }
}

void LogServices(const char* function, const ServiceMap& services)
{
    for (const auto& [service, interfaces] : services)
    {
        LOG_FOR(function, info, "results service=[%s]", service.c_str());
        for (const std::string& interface : interfaces)
        {
            LOG_FOR(function, info, "results interface=[%s]", interface.c_str());
        }
    }
}

template <class Callback>
int HandleReply(const char* function, sd_bus_message* reply, void* record, bool logServices)
{
    const Pending<Callback> pending = Take<Callback>(reply, record);
    if (const sd_bus_error* error = sd_bus_message_get_error(reply))
    {
        const bool timedOut = TimedOut(error, pending.deadline);
        LogErrorReply(function, error);
        CompleteFailed<ServiceMap>(function, pending, timedOut);
        return 1;
    }
    try
    {
        auto services = Read<ServiceMap>(reply);
        if (logServices)
        {
            LogServices(function, services);
        }
        Complete(pending, true, false, services);
        return 1;
    }
    catch (const std::exception& e)
    {
        LOG_FOR(function, error, "ex: %s", e.what());
    }
    CompleteFailed<ServiceMap>(function, pending, false);
    return 1;
}

template <class Callback>
void ChooseService(const char* function, bool timedOut, const ServiceMap& services, void* record)
{
    using Record = CallbackRecord<Callback>;
    const Record to = *std::unique_ptr<Record>(static_cast<Record*>(record));
    try
    {
        for (const auto& entry : services)
        {
            if (!entry.first.empty())
            {
                std::string service = entry.first;
                Complete(to, true, false, service);
                return;
            }
        }
    }
    catch (const std::exception& e)
    {
        LOG_FOR(function, error, "ex: %s", e.what());
    }
    CompleteFailed<std::string>(function, to, timedOut);
}

} // namespace

namespace Wrappers
{

int Internal_GetObjectAsync_Callback(sd_bus_message* reply, void* record, sd_bus_error* /*error*/)
{
    return HandleReply<GetObjectCallback>(__func__, reply, record, false);
}

int Internal_GetObjectAsync_Callback2(sd_bus_message* reply, void* record, sd_bus_error* /*error*/)
{
    return HandleReply<GetObjectCallback2>(__func__, reply, record, true);
}

void Internal_PathAndInterfaceToServiceAsync_Callback(bool /*success*/, ServiceMap& services,
                                                      void* record)
{
    ChooseService<ServiceCallback>(__func__, false, services, record);
}

void Internal_PathAndInterfaceToServiceAsync_Callback2(bool /*success*/, bool timedOut,
                                                       ServiceMap& services, void* record)
{
    ChooseService<ServiceCallback2>(__func__, timedOut, services, record);
}

} // namespace Wrappers

} // namespace ObjectMapper
