// One look at a constructor's arguments, and one line where they look swapped.

#include "client/argument_order.hpp"

#include "client/member_log.hpp"

#include <bmcbus/client/overloads.hpp>

namespace bmcbus::client
{

void LogIfSwapped(const Interface& interface, Family family, const std::string& path,
                  const std::string& service)
{
    if (!AreSwapped(path.c_str(), service.c_str()))
    {
        return;
    }
    const bool cached = family == Family::cached;
    CLIENT_LOG(error, interface.label, interface.short_name,
               "swapped arguments [%s], [%s]: %s::%s takes (%s)", (cached ? path : service).c_str(),
               (cached ? service : path).c_str(), cached ? "ClientCache" : "ClientEdge",
               interface.short_name, cached ? "path, service" : "service, path");
}

} // namespace bmcbus::client
