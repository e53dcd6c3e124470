#pragma once

// The values of one message: decoded as a whole first, then stored under the object's lock, with
// the names of those that differ from before.

#include "client/value.hpp"
#include "live/entry.hpp"

namespace bmcbus::live
{

class Decoder
{
  public:
    // Reads an a{sv}. A value of another type than the description's is left out, counted and
    // logged; what the description does not know is skipped. Throws Error.
    void Read(sd_bus_message* message, Entry& entry);

    // Reads an as: what the service has other values of, which it did not send.
    void ReadInvalidated(sd_bus_message* message, const Entry& entry);
    bool invalidates() const { return !invalidated_.empty(); }

    // How many properties of the description it brought, of whatever type.
    bool empty() const { return values_.empty() && refusal_.empty(); }
    // What was refused last, for people.
    const std::string& refusal() const { return refusal_; }

    // Stores them and unsets the invalidated ones, in one step for readers; of a whole read what it
    // did not bring becomes unset. Gives the properties that changed, in their order, valid until
    // the next call; the invalidated ones are told with the read that follows.
    std::span<const uint16_t> Store(Entry& entry, bool whole);

  private:
    struct Decoded
    {
        uint16_t property;
        uint64_t print;
        client::Value value;
    };

    void ReadOne(sd_bus_message* message, Entry& entry);
    void Refuse(Entry& entry, const char* name, const char* got, const char* wanted);

    std::vector<Decoded> values_;
    std::vector<uint16_t> changed_;
    std::vector<uint16_t> invalidated_;
    std::string refusal_;
};

} // namespace bmcbus::live
