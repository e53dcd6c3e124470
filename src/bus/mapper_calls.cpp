// The object mapper's questions as requests with a result.

#include <bmcbus/mapper.hpp>

#include "bus/object_mapper_internal.hpp"

#include <cerrno>

namespace bmcbus::mapper::detail
{
namespace
{

Request Ask(sd_bus* bus, const char* member) noexcept
{
    using namespace ObjectMapper::internal;
    return {bus, bmcbus::detail::Destination{mapperService, mapperPath, mapperInterface, member}};
}

void ReadFirst(sd_bus_message* reply, void* value, const void* /*how*/)
{
    Services services;
    client::Read(reply, services);
    if (services.empty())
    {
        throw Error(ENOENT, "GetObject");
    }
    *static_cast<std::string*>(value) = services.begin()->first;
}

} // namespace

const bmcbus::detail::ReplyType firstService = {
    .signature = "a{sas}", .property = false, .read = ReadFirst, .how = nullptr};

Request GetObject(sd_bus* bus, const std::string& path, const Interfaces& interfaces) noexcept
{
    return Ask(bus, "GetObject").With(path, interfaces);
}

Request GetSubTree(sd_bus* bus, const std::string& path, int32_t depth,
                   const Interfaces& interfaces, const char* member) noexcept
{
    return Ask(bus, member).With(path, depth, interfaces);
}

Request GetAncestors(sd_bus* bus, const std::string& path, const Interfaces& interfaces) noexcept
{
    return Ask(bus, "GetAncestors").With(path, interfaces);
}

} // namespace bmcbus::mapper::detail
