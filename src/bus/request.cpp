// A request: a call to a service, object and member by name. Whatever goes wrong before it is sent
// is kept, and becomes its result.

#include <bmcbus/request.hpp>

#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"
#include "bus/call_message.hpp"
#include "bus/message_size.hpp"

#include <cerrno>
#include <utility>

namespace bmcbus
{

Request::Request(sd_bus* bus, const detail::Destination& to) noexcept :
    message(detail::NewRequest(bus, to, refusal)), size(MessageSize())
{
}

Request::Request(const std::string& service, const std::string& path, const std::string& interface,
                 const std::string& member) noexcept :
    Request(nullptr, {service, path, interface, member})
{
}

Request::Request(sd_bus* bus, const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& member) noexcept :
    Request(bus, {service, path, interface, member})
{
}

Request::Request(Bus& bus, const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& member) noexcept :
    Request(Connection(bus), {service, path, interface, member})
{
}

void Request::Append(void (*append)(sd_bus_message* call, const void* value),
                     const void* value) noexcept
{
    if (!message)
    {
        return;
    }
    // Others may have been begun since.
    ContinueMessage(message.get(), size);
    if (!detail::AppendTo(message.get(), append, value, refusal))
    {
        message.reset();
    }
    size = MessageSize();
}

CallError* Request::Why() noexcept
{
    if (!message && refusal.message.empty())
    {
        refusal = detail::RefusedError("The request has been sent already");
    }
    return &refusal;
}

} // namespace bmcbus
