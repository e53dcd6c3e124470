#pragma once

// The two families take a path and a service in different orders, and both are text.

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
