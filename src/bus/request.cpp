#include <bmcbus/request.hpp>

#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"
#include "bus/call_message.hpp"

#include <cerrno>
#include <utility>

// A call by name. Whatever goes wrong before it is sent is kept for its result.

namespace bmcbus
{

Request::Request(const std::string& service, const std::string& path, const std::string& interface,
                 const std::string& member) noexcept :
    message(detail::NewRequest(nullptr, {service, path, interface, member}, refusal))
{
}

Request::Request(sd_bus* bus, const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& member) noexcept :
    message(detail::NewRequest(bus, {service, path, interface, member}, refusal))
{
}

Request::Request(Bus& bus, const std::string& service, const std::string& path,
                 const std::string& interface, const std::string& member) noexcept :
    Request(Connection(bus), service, path, interface, member)
{
}

void Request::Append(void (*append)(sd_bus_message* call, const void* value),
                     const void* value) noexcept
{
    if (message && !detail::AppendTo(message.get(), append, value, refusal))
    {
        message.reset();
    }
}

CallError* Request::Why() noexcept
{
    if (!message && refusal.name.empty())
    {
        refusal = CallError(CallFailure::Refused, error_name::refused,
                            "The request has been sent already");
    }
    return &refusal;
}

} // namespace bmcbus
