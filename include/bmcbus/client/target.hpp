#pragma once

/**
 * @file
 * What an object of a direct proxy keeps. For generated headers, which include next to nothing.
 */

#include <bmcbus/call.hpp>
#include <bmcbus/client/fork_mutex.hpp>
#include <bmcbus/refs.hpp>

#include <string>

namespace bmcbus::client
{

struct Interface;

/** The object that a direct proxy stands for, and the interface that the proxy calls there. */
struct Target
{
    /**
     * Takes the texts, and a reference to @p bus unless it is null. Looks the service up when it is
     * empty; never throws a `std::exception`.
     */
    BMCBUS_EXPORT Target(const Interface& to, sd_bus* on, std::string* owner, std::string* at);
    BMCBUS_EXPORT ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    const Interface* interface;
    ForkMutex mutex;
    std::string service;
    std::string path;
    BusRef bus;                      ///< null: the calling thread's default connection
    bmcbus::detail::CallOwner calls; ///< last: pending calls end before all else goes
};

} // namespace bmcbus::client
