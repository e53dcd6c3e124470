// The object mapper's blocking questions: one call each, and lines that name what was asked when
// it fails.

#include <object_mapper.hpp>

#include "bus/bus.hpp"
#include "bus/object_mapper_internal.hpp"

#include <exception>

namespace ObjectMapper
{

void internal::LogObjectFailure(const char* function, const std::exception& e,
                                const std::string& path, const Names& interfaces)
{
    LOG_FOR(function, error, "ex: %s", e.what());
    LOG_FOR(function, error, " path: %s", path.c_str());
    for (const std::string& interface : interfaces)
    {
        LOG_FOR(function, error, " interface: %s", interface.c_str());
    }
}

namespace
{

using internal::LogObjectFailure;
using internal::Names;
using internal::Read;
using Wrappers::ServiceMap;
using Wrappers::SubTreeMap;

void LogListed(const char* function, const Names& interfaces)
{
    for (const std::string& interface : interfaces)
    {
        LOG_FOR(function, error, " -: %s", interface.c_str());
    }
}

void LogSubTreeFailure(const char* function, const std::exception& e, const std::string& path,
                       int depth, const Names& interfaces)
{
    LOG_FOR(function, error, "ex: %s", e.what());
    LOG_FOR(function, error, " -: %s %d", path.c_str(), depth);
    LogListed(function, interfaces);
}

void LogAncestorsFailure(const char* function, const std::exception& e, const std::string& path,
                         const Names& interfaces)
{
    LOG_FOR(function, error, "ex: %s", e.what());
    LOG_FOR(function, error, " -: %s", path.c_str());
    LogListed(function, interfaces);
}

// One question and its answer. `depth` is null for questions without one.
bmcbus::MessageRef Ask(const char* question, const std::string& path, const int* depth,
                       const Names& interfaces)
{
    using bmcbus::client::Append;
    const bmcbus::BusRef bus = bmcbus::DefaultBus();
    const bmcbus::MessageRef call =
        bmcbus::NewCall(bus.get(), internal::mapperService, internal::mapperPath,
                        internal::mapperInterface, question);
    Append(call.get(), path);
    if (depth != nullptr)
    {
        Append(call.get(), int32_t{*depth});
    }
    Append(call.get(), interfaces);
    return bmcbus::ReplyTo(bus.get(), call.get());
}

} // namespace

namespace Wrappers
{

ServiceMap GetObject(const std::string& path, const Names& interfaces)
try
{
    return Read<ServiceMap>(Ask("GetObject", path, nullptr, interfaces).get());
}
catch (const std::exception& e)
{
    LogObjectFailure(__func__, e, path, interfaces);
    throw;
}

SubTreeMap GetSubTree(const std::string& path, const int& depth, const Names& interfaces)
try
{
    return Read<SubTreeMap>(Ask("GetSubTree", path, &depth, interfaces).get());
}
catch (const std::exception& e)
{
    LogSubTreeFailure(__func__, e, path, depth, interfaces);
    throw;
}

Names GetSubTreePaths(const std::string& path, const int& depth, const Names& interfaces)
try
{
    return Read<Names>(Ask("GetSubTreePaths", path, &depth, interfaces).get());
}
catch (const std::exception& e)
{
    LogSubTreeFailure(__func__, e, path, depth, interfaces);
    throw;
}

SubTreeMap GetAncestors(const std::string& path, const Names& interfaces)
try
{
    return Read<SubTreeMap>(Ask("GetAncestors", path, nullptr, interfaces).get());
}
catch (const std::exception& e)
{
    LogAncestorsFailure(__func__, e, path, interfaces);
    throw;
}

Names GetAssociations(const std::string& /*path*/)
{
    const bmcbus::BusRef bus = bmcbus::DefaultBus();
    return {};
}

} // namespace Wrappers

namespace
{

// The first service by name that lists the interface; empty when none does.
std::string FindService(const std::string& path, const std::string& interface)
{
    for (const auto& [service, interfaces] : Wrappers::GetObject(path, {interface}))
    {
        for (const std::string& implemented : interfaces)
        {
            if (implemented == interface)
            {
                return service;
            }
        }
    }
    return {};
}

} // namespace

void Wrappers::PathAndInterfaceToService(const std::string& path, const std::string& interface,
                                         std::string& service)
{
    service.clear();
    try
    {
        service = FindService(path, interface);
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG(error, "exception: %s", e.what());
    }
}

void Wrappers::PathAndInterfaceToService2(const std::string& path, const std::string& interface,
                                          std::string& service)
{
    service.clear();
    try
    {
        service = FindService(path, interface);
    }
    catch (const std::exception& e)
    {
        BMCBUS_LOG(error, "exception: %s", e.what());
        throw;
    }
}

} // namespace ObjectMapper
