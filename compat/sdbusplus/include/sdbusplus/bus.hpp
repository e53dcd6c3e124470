#pragma once

/**
 * @file
 * Connections.
 */

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace bus
{
namespace match
{
struct match;
}

/** A reference to a connection, used on the thread that the connection belongs to. Move-only.
 */
struct bus
{
    /**
     * Takes one more reference. Blocks until the connection is up.
     *
     * @throws std::logic_error for a dead connection or one inherited over fork()
     */
    explicit bus(sd_bus* b) : bus(sd_bus_ref(b), std::false_type()) {}

    /** The same, adopting the caller's reference, also when it throws. */
    bus(sd_bus* b, std::false_type) : raw(b)
    {
        if (raw != nullptr && get_name() == nullptr)
        {
            sd_bus_unref(raw);
            throw std::logic_error("basic_string: construction from null is not valid");
        }
    }

    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;

    bus(bus&& other) noexcept :
        raw(std::exchange(other.raw, nullptr)),
        should_close(std::exchange(other.should_close, false))
    {
    }

    bus& operator=(bus&& other) noexcept
    {
        std::swap(raw, other.raw);
        std::swap(should_close, other.should_close);
        return *this;
    }

    ~bus()
    {
        if (should_close)
        {
            sd_bus_flush_close_unref(raw);
        }
        else
        {
            sd_bus_unref(raw);
        }
    }

    /** Whether the destructor sends what is queued and closes the connection. */
    void set_should_close(bool should) noexcept { should_close = should; }

    /** @throws sdbusplus::exception::SdBusError for an empty or malformed argument */
    message::message new_method_call(const char* service, const char* path, const char* interface,
                                     const char* member)
    {
        sd_bus_message* made = nullptr;
        check(sd_bus_message_new_method_call(raw, &made, service, path, interface, member),
              "sd_bus_message_new_method_call");
        return message::message(made, std::false_type());
    }

    /**
     * Sends the call and waits for the reply.
     *
     * @param timeout_us microseconds; 0 for the connection's default
     * @throws sdbusplus::exception::SdBusError for an error reply, too
     */
    message::message call(message::message& m, std::uint64_t timeout_us = 0)
    {
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        const int result = sd_bus_call(raw, m.get(), timeout_us, &error, &reply);
        if (result < 0)
        {
            if (sd_bus_error_is_set(&error))
            {
                throw exception::SdBusError(&error, "sd_bus_call");
            }
            throw exception::SdBusError(result, "sd_bus_call");
        }
        sd_bus_error_free(&error);
        return message::message(reply, std::false_type());
    }

    /** The name that the daemon gave the connection, ":1.42". */
    std::string get_unique_name() { return get_name(); }

    /**
     * Sends, receives and handles one message, without waiting for one.
     *
     * @return whether there was anything to do
     * @throws sdbusplus::exception::SdBusError for a connection that is gone
     */
    bool process_discard()
    {
        return check(sd_bus_process(raw, nullptr), "sd_bus_process discard") > 0;
    }

    /** Waits until there may be something to do, at most this many microseconds. */
    void wait(std::uint64_t timeout_us = UINT64_MAX)
    {
        check(sd_bus_wait(raw, timeout_us), "sd_bus_wait");
    }

    /** Waits until everything queued has been written. */
    void flush() { sd_bus_flush(raw); }

    void close() { sd_bus_close(raw); }

    /** Lets an event loop handle messages. */
    void attach_event(sd_event* event, int priority)
    {
        check(sd_bus_attach_event(raw, event, priority), "sd_bus_attach_event");
    }

    void detach_event() { check(sd_bus_detach_event(raw), "sd_bus_detach_event"); }

    /** Borrowed; null when no loop is attached. */
    sd_event* get_event() { return sd_bus_get_event(raw); }

  protected:
    sd_bus* get() noexcept { return raw; }

  private:
    friend struct match::match;

    static int check(int result, const char* prefix)
    {
        if (result < 0)
        {
            throw exception::SdBusError(result, prefix);
        }
        return result;
    }

    const char* get_name() const noexcept
    {
        const char* name = nullptr;
        sd_bus_get_unique_name(raw, &name);
        return name;
    }

    sd_bus* raw = nullptr;
    bool should_close = false;
};

namespace details
{

using opener = int (*)(sd_bus**);

inline sd_bus* open(opener with, const char* prefix)
{
    sd_bus* raw = nullptr;
    const int result = with(&raw);
    if (result < 0)
    {
        throw exception::SdBusError(result, prefix);
    }
    return raw;
}

inline bus open_owned(opener with, const char* prefix)
{
    bus made(open(with, prefix), std::false_type());
    made.set_should_close(true);
    return made;
}

} // namespace details

/** The calling thread's default connection. */
inline bus new_default()
{
    return bus(details::open(sd_bus_default, __PRETTY_FUNCTION__), std::false_type());
}

/** The calling thread's default connection to the user bus. */
inline bus new_default_user()
{
    return bus(details::open(sd_bus_default_user, __PRETTY_FUNCTION__), std::false_type());
}

/** The calling thread's default connection to the system bus. */
inline bus new_default_system()
{
    return bus(details::open(sd_bus_default_system, __PRETTY_FUNCTION__), std::false_type());
}

/** A connection of the caller's own, closed by the destructor; so are the next two. */
inline bus new_bus()
{
    return details::open_owned(sd_bus_open, __PRETTY_FUNCTION__);
}

inline bus new_user()
{
    return details::open_owned(sd_bus_open_user, __PRETTY_FUNCTION__);
}

inline bus new_system()
{
    return details::open_owned(sd_bus_open_system, __PRETTY_FUNCTION__);
}

} // namespace bus

using bus_t = bus::bus;

namespace message
{

inline bus_t message::get_bus() const
{
    return bus_t(sd_bus_message_get_bus(raw.get()));
}

} // namespace message
} // namespace sdbusplus

#pragma GCC visibility pop
