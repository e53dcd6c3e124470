#pragma once

/**
 * @file
 * Bus messages.
 */

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/append.hpp>
#include <sdbusplus/message/read.hpp>
#include <sdbusplus/message/types.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <string_view>
#include <type_traits>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace bus
{
struct bus;
}

namespace message
{

/**
 * A counted reference to a bus message. Copies share the message and its read position; what
 * was moved from is null. A message outlives the wrapper of its connection.
 */
class message
{
  public:
    /** Takes one more reference. */
    explicit message(sd_bus_message* m = nullptr) : raw(sd_bus_message_ref(m)) {}

    /** Adopts the caller's reference. */
    message(sd_bus_message* m, std::false_type) : raw(m) {}

    message(const message& other) : raw(sd_bus_message_ref(other.raw.get())) {}

    message& operator=(const message& other)
    {
        raw.reset(sd_bus_message_ref(other.raw.get()));
        return *this;
    }

    message(message&&) noexcept = default;
    message& operator=(message&&) noexcept = default;
    ~message() = default;

    explicit operator bool() const noexcept { return raw != nullptr; }

    /** Borrowed. */
    sd_bus_message* get() noexcept { return raw.get(); }

    /** Hands the reference to the caller. */
    sd_bus_message* release() noexcept { return raw.release(); }

    /** Appends the values; failures go unnoticed. */
    template <typename... T>
    void append(const T&... values)
    {
        (details::append_one<std::decay_t<const T&>>(get(), values), ...);
    }

    /**
     * Reads one value after the other.
     *
     * @throws sdbusplus::exception::SdBusError at a missing value or one of another type
     */
    template <typename... T>
    void read(T&... values)
    {
        (details::read_one(get(), values), ...);
    }

    /** The connection, with a reference of its own; sdbusplus/bus.hpp has the body. */
    sdbusplus::bus::bus get_bus() const;

    /** Signature of the whole body. */
    const char* get_signature() const { return sd_bus_message_get_signature(raw.get(), 1); }
    const char* get_path() const { return sd_bus_message_get_path(raw.get()); }
    const char* get_interface() const { return sd_bus_message_get_interface(raw.get()); }
    const char* get_member() const { return sd_bus_message_get_member(raw.get()); }
    const char* get_sender() const { return sd_bus_message_get_sender(raw.get()); }
    const char* get_destination() const { return sd_bus_message_get_destination(raw.get()); }

    bool is_method_error() const { return sd_bus_message_is_method_error(raw.get(), nullptr) > 0; }

    /** The error of an error reply, owned by the message; null for other messages. */
    const sd_bus_error* get_error() const { return sd_bus_message_get_error(raw.get()); }

  private:
    struct unref
    {
        void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
    };

    std::unique_ptr<sd_bus_message, unref> raw;
};

} // namespace message

using message_t = message::message;

} // namespace sdbusplus

#pragma GCC visibility pop
