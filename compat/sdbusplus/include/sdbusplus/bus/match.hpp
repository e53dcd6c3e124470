#pragma once

/**
 * @file
 * Subscriptions.
 */

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace bus
{
namespace match
{

/**
 * Calls a handler for each message that the rule selects, until it is destroyed. Keeps the
 * connection alive. No exception may leave the handler. Move-only.
 *
 * Making one waits for the daemon's answer.
 */
struct match
{
    using callback_t = std::function<void(sdbusplus::message::message&)>;

    /** @throws sdbusplus::exception::SdBusError when the rule is refused; so do the others */
    match(sdbusplus::bus::bus& bus, const char* rule, sd_bus_message_handler_t handler,
          void* context = nullptr) :
        slot(add(bus, rule, handler, context))
    {
    }

    match(sdbusplus::bus::bus& bus, const std::string& rule, sd_bus_message_handler_t handler,
          void* context = nullptr) :
        match(bus, rule.c_str(), handler, context)
    {
    }

    match(sdbusplus::bus::bus& bus, const char* rule, callback_t callback) :
        kept(std::make_unique<callback_t>(std::move(callback))),
        slot(add(bus, rule, &run, kept.get()))
    {
    }

    match(sdbusplus::bus::bus& bus, const std::string& rule, callback_t callback) :
        match(bus, rule.c_str(), std::move(callback))
    {
    }

  private:
    struct unref
    {
        void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
    };

    static sd_bus_slot* add(sdbusplus::bus::bus& bus, const char* rule,
                            sd_bus_message_handler_t handler, void* context)
    {
        sd_bus_slot* made = nullptr;
        const int result = sd_bus_add_match(bus.get(), &made, rule, handler, context);
        if (result < 0)
        {
            throw exception::SdBusError(result, "sd_bus_match");
        }
        return made;
    }

    // An exception must not unwind through sd-bus.
    static int run(sd_bus_message* m, void* context, sd_bus_error*) noexcept
    {
        sdbusplus::message::message wrapped(m);
        (*static_cast<callback_t*>(context))(wrapped);
        return 0;
    }

    std::unique_ptr<callback_t> kept; // outlives the slot
    std::unique_ptr<sd_bus_slot, unref> slot;
};

/** Pieces of a rule; each ends with a comma and puts its text between quotes as it is. */
namespace rules
{

inline std::string key(const char* name, const std::string& value)
{
    return std::string(name).append("='").append(value).append("',");
}

namespace type
{
inline std::string signal()
{
    return key("type", "signal");
}
} // namespace type

inline std::string member(const std::string& name)
{
    return key("member", name);
}

inline std::string path(const std::string& name)
{
    return key("path", name);
}

inline std::string interface(const std::string& name)
{
    return key("interface", name);
}

} // namespace rules
} // namespace match

using match_t = match::match;

} // namespace bus
} // namespace sdbusplus

#pragma GCC visibility pop
