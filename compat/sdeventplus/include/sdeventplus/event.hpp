#pragma once

/**
 * @file
 * Event loops.
 */

#include <sdeventplus/exception.hpp>
#include <systemd/sd-event.h>

#include <memory>
#include <type_traits>

namespace sdeventplus __attribute__((visibility("default")))
{

    /** A counted reference to an event loop. A null loop is accepted here and fails at its first
     * use. */
    class Event
    {
      public:
        /** Takes one more reference. */
        explicit Event(sd_event* e) : raw(sd_event_ref(e))
        {
        }

        /** Adopts the caller's reference. */
        Event(sd_event* e, std::false_type) : raw(e)
        {
        }

        Event(const Event& other) : Event(other.get())
        {
        }

        Event& operator=(const Event& other)
        {
            raw.reset(sd_event_ref(other.get()));
            return *this;
        }

        Event(Event&&) noexcept = default;
        Event& operator=(Event&&) noexcept = default;
        ~Event() = default;

        /** Borrowed. */
        sd_event* get() const noexcept
        {
            return raw.get();
        }

      private:
        struct unref
        {
            void operator()(sd_event* e) const
            {
                sd_event_unref(e);
            }
        };

        std::unique_ptr<sd_event, unref> raw;
    };

} // namespace )
