#pragma once

/**
 * @file
 * Questions to the object mapper with results: blocking, with a completion, or awaited.
 *
 * The same questions as in `object_mapper.hpp`; nothing is logged or thrown, the result tells.
 * Without a connection they go out on the calling thread's default one. See `call.hpp` for threads,
 * ends of connections and fork().
 */

#include <bmcbus/export.h>
#include <bmcbus/request.hpp>

#include <list>
#include <map>
#include <string>
#include <utility>

/** Questions to the object mapper. */
namespace bmcbus::mapper
{

/** Names of interfaces; an empty list asks for all. */
using Interfaces = std::list<std::string>;

/** Service name to the interfaces it has on one path. */
using Services = std::map<std::string, Interfaces>;

/** Object path to the services behind it. */
using Tree = std::map<std::string, Services>;

/// @cond internal
namespace detail
{
BMCBUS_EXPORT Request GetObject(sd_bus* bus, const std::string& path,
                                const Interfaces& interfaces) noexcept;
BMCBUS_EXPORT Request GetSubTree(sd_bus* bus, const std::string& path, int32_t depth,
                                 const Interfaces& interfaces, const char* member) noexcept;
BMCBUS_EXPORT Request GetAncestors(sd_bus* bus, const std::string& path,
                                   const Interfaces& interfaces) noexcept;
/** How to read the first service of an answer to GetObject. */
BMCBUS_EXPORT extern const bmcbus::detail::ReplyType firstService;
} // namespace detail
/// @endcond

/** The services that implement at least one of @p interfaces on @p path. @{ */
inline Result<Services> Try_GetObject(const std::string& path, const Interfaces& interfaces,
                                      const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, interfaces).Try<Services>(options);
}
inline AsyncCall<Services> Async_GetObject(const std::string& path, const Interfaces& interfaces,
                                           const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, interfaces).Async<Services>(options);
}
template <std::invocable<Result<Services>> Completion>
Call Async_GetObject(const std::string& path, const Interfaces& interfaces, Completion&& completion,
                     const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, interfaces)
        .Async<Services>(std::forward<Completion>(completion), options);
}
/** @} */

/** The objects below @p path, at most @p depth levels down (0: no limit), with their services. @{
 */
inline Result<Tree> Try_GetSubTree(const std::string& path, int32_t depth,
                                   const Interfaces& interfaces, const CallOptions& options = {},
                                   sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTree").Try<Tree>(options);
}
inline AsyncCall<Tree> Async_GetSubTree(const std::string& path, int32_t depth,
                                        const Interfaces& interfaces,
                                        const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTree").Async<Tree>(options);
}
template <std::invocable<Result<Tree>> Completion>
Call Async_GetSubTree(const std::string& path, int32_t depth, const Interfaces& interfaces,
                      Completion&& completion, const CallOptions& options = {},
                      sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTree")
        .Async<Tree>(std::forward<Completion>(completion), options);
}
/** @} */

/** The paths of the objects below @p path, at most @p depth levels down (0: no limit). @{ */
inline Result<std::list<std::string>> Try_GetSubTreePaths(const std::string& path, int32_t depth,
                                                          const Interfaces& interfaces,
                                                          const CallOptions& options = {},
                                                          sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTreePaths")
        .Try<std::list<std::string>>(options);
}
inline AsyncCall<std::list<std::string>>
Async_GetSubTreePaths(const std::string& path, int32_t depth, const Interfaces& interfaces,
                      const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTreePaths")
        .Async<std::list<std::string>>(options);
}
template <std::invocable<Result<std::list<std::string>>> Completion>
Call Async_GetSubTreePaths(const std::string& path, int32_t depth, const Interfaces& interfaces,
                           Completion&& completion, const CallOptions& options = {},
                           sd_bus* bus = nullptr)
{
    return detail::GetSubTree(bus, path, depth, interfaces, "GetSubTreePaths")
        .Async<std::list<std::string>>(std::forward<Completion>(completion), options);
}
/** @} */

/** The objects above @p path with their services. @{ */
inline Result<Tree> Try_GetAncestors(const std::string& path, const Interfaces& interfaces,
                                     const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetAncestors(bus, path, interfaces).Try<Tree>(options);
}
inline AsyncCall<Tree> Async_GetAncestors(const std::string& path, const Interfaces& interfaces,
                                          const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetAncestors(bus, path, interfaces).Async<Tree>(options);
}
template <std::invocable<Result<Tree>> Completion>
Call Async_GetAncestors(const std::string& path, const Interfaces& interfaces,
                        Completion&& completion, const CallOptions& options = {},
                        sd_bus* bus = nullptr)
{
    return detail::GetAncestors(bus, path, interfaces)
        .Async<Tree>(std::forward<Completion>(completion), options);
}
/** @} */

/**
 * The service that implements @p interface on @p path; of several the one whose name sorts first.
 *
 * @code
 * const auto service = co_await bmcbus::mapper::Async_Service(path, interface, {.timeout = 1s});
 * @endcode
 * @{
 */
inline Result<std::string> Try_Service(const std::string& path, const std::string& interface,
                                       const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, {interface})
        .TryAs<std::string>(detail::firstService, options);
}
inline AsyncCall<std::string> Async_Service(const std::string& path, const std::string& interface,
                                            const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, {interface})
        .AsyncAs<std::string>(detail::firstService, options);
}
template <std::invocable<Result<std::string>> Completion>
Call Async_Service(const std::string& path, const std::string& interface, Completion&& completion,
                   const CallOptions& options = {}, sd_bus* bus = nullptr)
{
    return detail::GetObject(bus, path, {interface})
        .AsyncAs<std::string>(detail::firstService, std::forward<Completion>(completion), options);
}
/** @} */

} // namespace bmcbus::mapper
