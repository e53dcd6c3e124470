#pragma once

// Cached proxies take a path and a service, direct proxies a service and a path. Both are text, so
// swapped arguments compile unless they are literals, and what fails then says nothing of the
// cause.

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

enum class Family
{
    cached, // (path, service)
    direct  // (service, path)
};

// Logs that a constructor got the one in place of the other. The object goes on with what it got.
void LogIfSwapped(const Interface& interface, Family family, const std::string& path,
                  const std::string& service);

} // namespace bmcbus::client
