#pragma once

/**
 * @file
 * All properties of an object, read without blocking.
 */

#include <bmcbus/export.h>
#include <bmcbus/refs.hpp>
#include <bmcbus/sdbusplus.hpp>
#include <bmcbus/wire.hpp>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Async::Ops
{

namespace detail
{

/**
 * Queues the call. @p release, where given, runs on @p record when the request has ended, in
 * whatever way: answered, timed out, cancelled by dropping the slot, or gone with the connection.
 * It also runs when this function throws.
 */
BMCBUS_EXPORT bmcbus::Slot QueueGetAll(sd_bus* bus, const std::string& service,
                                       const std::string& path, const std::string& interface,
                                       sd_bus_message_handler_t handler, void* record,
                                       void (*release)(void* record));

/** Leaves a request to its connection, which then owns it. */
BMCBUS_EXPORT void Detach(bmcbus::Slot slot);

/** How to read a reply, and whom to tell. */
struct Reply
{
    void* self;
    void (*decode)(void* self, sd_bus_message* reply);
    void (*complete)(void* self, bool success);
};

/** The frame of every reply handler; returns 1. */
BMCBUS_EXPORT int HandleReply(sd_bus_message* message, const Reply& reply);

template <class Variant>
struct Request
{
    using Properties = std::map<std::string, Variant>;

    std::function<void(bool, Properties&, void*)> callback;
    void* context;
    Properties properties{};
};

} // namespace detail

/**
 * The reply handler of `GetAllProperties`; called by sd-bus, exported for completeness.
 *
 * Runs on the thread that dispatches the connection.
 *
 * @return 1, whatever happened
 */
template <class Variant>
int Internal_GetAllProperties_Callback(sd_bus_message* reply, void* record, sd_bus_error* error);

/**
 * Asks @p service for all properties of @p interface at @p path, without waiting.
 *
 * Call it on the thread that @p bus belongs to; that thread must dispatch the connection, or the
 * answer never comes, and something must hold the connection: a request on a connection that nobody
 * refers to is dropped with it. The callback then runs once on that thread:
 * `callback(true, properties, context)` with the decoded reply, or `callback(false, empty,
 * context)` after an error, whose name and text are logged at level 2. If the callback itself
 * throws a `std::exception` on success, it is called a second time, with `false`. It must throw
 * nothing else: anything else ends the process, since it cannot pass through sd-bus. The map lives
 * for the call only. A value whose type is none of Variant's alternatives reads as alternative 0,
 * value-initialised.
 *
 * What the request holds is released on every path, also when the connection goes away first; then
 * the callback never runs. In a forked child nothing of a parent's request happens.
 *
 * Throws `std::runtime_error` when the request cannot be queued; then the callback never runs.
 *
 * @param callback  must have a target
 *
 * @code
 * using Variant = std::variant<std::string, uint32_t>;
 * Async::Ops::GetAllProperties<Variant>(
 *     bus, "com.example.Service", "/com/example/object", "com.example.Interface",
 *     [](bool success, std::map<std::string, Variant>& properties, void*) { ... }, nullptr);
 * @endcode
 */
template <class Variant>
void GetAllProperties(bmcbus::Bus& bus, const std::string& service, const std::string& path,
                      const std::string& interface,
                      std::function<void(bool, std::map<std::string, Variant>&, void*)> callback,
                      void* context)
{
    using Request = detail::Request<Variant>;
    auto request = std::make_unique<Request>(Request{std::move(callback), context});
    detail::Detach(detail::QueueGetAll(
        bmcbus::Connection(bus), service, path, interface,
        [](sd_bus_message* reply, void* record, sd_bus_error* error) noexcept
        { return Internal_GetAllProperties_Callback<Variant>(reply, record, error); },
        request.release(), [](void* record) { delete static_cast<Request*>(record); }));
}

template <class Variant>
int Internal_GetAllProperties_Callback(sd_bus_message* reply, void* record, sd_bus_error* /*error*/)
{
    using Request = detail::Request<Variant>;
    // The record itself goes when the pending call does, right after this handler.
    Request request = std::move(*static_cast<Request*>(record));
    return detail::HandleReply(
        reply, {.self = &request,
                .decode = [](void* self, sd_bus_message* message)
                { bmcbus::client::Read(message, static_cast<Request*>(self)->properties); },
                .complete =
                    [](void* self, bool success)
                {
                    auto& done = *static_cast<Request*>(self);
                    if (!success)
                    {
                        done.properties.clear();
                    }
                    done.callback(success, done.properties, done.context);
                }});
}

} // namespace Async::Ops
