#pragma once

/**
 * @file
 * Owned references to sd-bus objects.
 *
 * A connection and everything that refers to it belong to one thread: drop these on the thread that
 * dispatches the connection. After fork() dropping them in the child is allowed and does nothing to
 * the parent.
 */

#include <systemd/sd-bus.h>

#include <cstddef>
#include <utility>

namespace bmcbus
{

/** Drops one reference. */
struct Unref
{
    void operator()(sd_bus* bus) const { sd_bus_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};

/**
 * One reference, dropped at the end; with the members of std::unique_ptr.
 *
 * Every generated header needs it, and `<memory>` would take a source with one of them a third of
 * its time to compile.
 */
template <class T>
class Owned
{
  public:
    constexpr Owned() noexcept = default;
    constexpr Owned(std::nullptr_t) noexcept {}
    /** Takes the caller's reference over. */
    constexpr explicit Owned(T* object) noexcept : object_(object) {}
    Owned(Owned&& other) noexcept : object_(other.release()) {}
    Owned& operator=(Owned&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Owned() { reset(); }

    T* get() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    /** Gives the reference to the caller. */
    [[nodiscard]] T* release() noexcept { return std::exchange(object_, nullptr); }
    /** Drops the reference, which is no longer held then, and takes another over. */
    void reset(T* object = nullptr) noexcept
    {
        if (T* const dropped = std::exchange(object_, object))
        {
            Unref()(dropped);
        }
    }

    friend bool operator==(const Owned& owned, std::nullptr_t) noexcept { return !owned; }

  private:
    T* object_ = nullptr;
};

using BusRef = Owned<sd_bus>;
using MessageRef = Owned<sd_bus_message>;

/** A subscription or a pending call; dropping it ends the one and cancels the other. */
using Slot = Owned<sd_bus_slot>;

} // namespace bmcbus
