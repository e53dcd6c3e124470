#pragma once

/**
 * @file
 * What a live object can be, and what a message changed in it.
 */

#include <bmcbus/client/cached.hpp>
#include <bmcbus/live/stepper.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>

namespace bmcbus
{

/** What the values of a live object are worth at the moment. */
enum class LiveState : uint8_t
{
    Absent,  ///< there has been no object yet: no service, or a service without it
    Reading, ///< a service has it; its values are on their way, those shown are of before
    Live,    ///< the values are those of the present owner, as far as its signals have arrived
    Lost     ///< the object, its service or the connection has gone; the last values remain
};

/** The state's name, as its enumerator is spelled. Any thread may call it. */
constexpr const char* Name(LiveState state)
{
    constexpr const char* names[] = {"Absent", "Reading", "Live", "Lost"};
    return names[static_cast<size_t>(state)];
}

/**
 * The names of the properties that one message changed, in ascending order.
 *
 * Borrowed: valid while the callback runs that it was given to, on that thread.
 */
class Changes
{
  public:
    /** For the library. */
    Changes(const client::Interface& interface, std::span<const uint16_t> which) :
        interface_(&interface), which_(which)
    {
    }

    /** Walks over the names. */
    class Iterator : public live::Stepper<Iterator, const uint16_t*>
    {
      public:
        /** As the standard's algorithms want it. @{ */
        using value_type = std::string_view;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        Iterator(const client::Interface* interface, const uint16_t* at) :
            live::Stepper<Iterator, const uint16_t*>(at), interface_(interface)
        {
        }
        std::string_view operator*() const
        {
            return interface_->NameOf(interface_->properties[*at_]);
        }
        /** @} */

      private:
        const client::Interface* interface_ = nullptr;
    };

    /** The names as a range. @{ */
    Iterator begin() const { return {interface_, which_.data()}; }
    Iterator end() const { return {interface_, which_.data() + which_.size()}; }
    size_t size() const { return which_.size(); }
    bool empty() const { return which_.empty(); }
    /** @} */

    /** Whether the property called @p name has another value than before, or none any more. */
    bool contains(std::string_view name) const { return std::find(begin(), end(), name) != end(); }

  private:
    const client::Interface* interface_;
    std::span<const uint16_t> which_;
};

} // namespace bmcbus
