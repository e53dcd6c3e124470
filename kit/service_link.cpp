// The connection of a service: messages come in by a filter, so that no object has to be registered
// with sd-bus and any answer at all can be given.

#include "service_link.hpp"

#include "connect.hpp"

namespace bmcbus::testing
{
namespace
{

// Every service lets another one of the kit take its names.
void AskFor(sd_bus* bus, const std::string& name, uint64_t flags)
{
    Check(sd_bus_request_name(bus, name.c_str(), SD_BUS_NAME_ALLOW_REPLACEMENT | flags),
          "request name " + name);
}

} // namespace

// Answers with an error in any case: with the reason where this one may not travel.
void AnswerFailure(sd_bus_message* call, const std::string& name, const std::string& text)
{
    try
    {
        Service::ReplyError(call, name, text);
    }
    catch (const std::invalid_argument& refused)
    {
        Service::ReplyError(call, SD_BUS_ERROR_FAILED, refused.what());
    }
}

Service::Link::Link(Service& owner, const Options& options) :
    service(owner), address(options.address.empty() ? SystemBusAddress() : options.address)
{
    if (options.loop == nullptr)
    {
        loop.emplace();
    }
    else
    {
        loop.emplace(options.loop);
    }
}

void Service::Link::Connect()
{
    Disconnect(true);
    Owned<sd_bus> fresh = testing::Connect(address);
    sd_bus* raw = fresh.get();
    sd_bus_slot* slot = nullptr;
    Check(sd_bus_add_filter(raw, &slot, OnMessage, this), "sd_bus_add_filter");
    Owned<sd_bus_slot> freshFilter(slot);
    for (const std::string& name : service.names)
    {
        AskFor(raw, name, 0);
    }
    Check(sd_bus_attach_event(raw, loop->Event(), SD_EVENT_PRIORITY_NORMAL), "sd_bus_attach_event");
    bus = std::move(fresh);
    filter = std::move(freshFilter);
}

void Service::Link::Disconnect(bool orderly)
{
    if (!bus)
    {
        return;
    }
    if (orderly)
    {
        sd_bus_flush(bus.get());
    }
    sd_bus_close(bus.get());
    filter.reset();
    bus.reset();
    unsettled = false;
}

bool Service::Link::Up() const
{
    return bus && sd_bus_is_open(bus.get()) > 0;
}

sd_bus* Service::Link::Bus() const
{
    Check(Up() ? 0 : -ENOTCONN, "service is not connected");
    return bus.get();
}

void Service::Link::Send(const std::string& path, const std::string& interface,
                         const std::string& member, const std::vector<Value>& arguments)
{
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_signal(Bus(), &raw, path.c_str(), interface.c_str(), member.c_str()),
          "signal " + path + " " + interface + "." + member);
    const Owned<sd_bus_message> signal(raw);
    for (const Value& argument : arguments)
    {
        argument.Append(raw);
    }
    Check(sd_bus_send(bus.get(), raw, nullptr), "sd_bus_send");
    unsettled = true;
}

void Service::Link::Settle() noexcept
{
    if (!unsettled || !Up())
    {
        return;
    }
    unsettled = false;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    // The daemon handles one connection's messages in order, so its answer comes after the signals
    // have been queued for their receivers.
    sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", peerInterface,
                       "Ping", &error, nullptr, "");
    sd_bus_error_free(&error);
}

int Service::Link::OnMessage(sd_bus_message* message, void* self, sd_bus_error*)
{
    if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0 ||
        sd_bus_message_is_method_call(message, peerInterface, nullptr) > 0)
    {
        return 0;
    }
    Service& service = static_cast<Link*>(self)->service;
    const auto text = [](const char* maybe) { return std::string(maybe == nullptr ? "" : maybe); };
    try
    {
        const Call call{.sender = text(sd_bus_message_get_sender(message)),
                        .path = text(sd_bus_message_get_path(message)),
                        .interface = text(sd_bus_message_get_interface(message)),
                        .member = text(sd_bus_message_get_member(message)),
                        .arguments = Value::ReadAll(message)};
        const Interceptor intercept = service.interceptor; // may be replaced while it runs
        if (!intercept || !intercept(call, message))
        {
            service.Answer(call, message);
        }
    }
    catch (const std::exception& error)
    {
        AnswerFailure(message, SD_BUS_ERROR_FAILED, error.what());
    }
    return 1;
}

void Service::Link::Ask(const std::string& name, uint64_t flags)
{
    AskFor(Bus(), name, flags);
}

} // namespace bmcbus::testing
