#pragma once

/**
 * @file
 * Event loops.
 */

#include <sdeventplus/exception.hpp>
#include <systemd/sd-event.h>

#include <memory>
#include <type_traits>

#pragma GCC visibility push(default)

namespace sdeventplus
{

/** A counted reference to an event loop. A null loop is accepted here and fails at its first
 * use. */
class Event
{
  public:
    /** Takes one more reference. */
    Event(sd_event* e) : raw(sd_event_ref(e)) {}

    /** Adopts the caller's reference. */
    Event(sd_event* e, std::false_type) : raw(e) {}

    Event(const Event& other) : Event(other.get()) {}

    Event& operator=(const Event& other)
    {
        raw.reset(sd_event_ref(other.get()));
        return *this;
    }

    Event(Event&&) noexcept = default;
    Event& operator=(Event&&) noexcept = default;
    ~Event() = default;

    /** The calling thread's default loop. */
    static Event get_default()
    {
        sd_event* e = nullptr;
        check(sd_event_default(&e), "sd_event_default");
        return Event(e, std::false_type());
    }

    /** A loop of its own. */
    static Event get_new()
    {
        sd_event* e = nullptr;
        check(sd_event_new(&e), "sd_event_new");
        return Event(e, std::false_type());
    }

    /** Borrowed. */
    sd_event* get() const noexcept { return raw.get(); }

    /** Runs until exit(), whose code it gives back. */
    int loop() const { return check(sd_event_loop(get()), "sd_event_loop"); }

    void exit(int code) const { check(sd_event_exit(get(), code), "sd_event_exit"); }

  private:
    static int check(int result, const char* call)
    {
        if (result < 0)
        {
            throw SdEventError(-result, call);
        }
        return result;
    }

    struct unref
    {
        void operator()(sd_event* e) const { sd_event_unref(e); }
    };

    std::unique_ptr<sd_event, unref> raw;
};

} // namespace sdeventplus

#pragma GCC visibility pop
