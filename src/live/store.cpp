// From a message to an object: all values are decoded before the first is stored, so a message
// that turns out to be broken changes nothing.

#include "live/store.hpp"

#include "bus/bus.hpp"
#include "client/signal.hpp"
#include "live/fingerprint.hpp"
#include "log.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr const char* enter = "sd_bus_message_enter_container";
constexpr const char* leave = "sd_bus_message_exit_container";

void* ValueOf(const Entry& entry, const client::Field& field)
{
    return client::Place(entry.object, field.value_offset);
}

void Unset(Entry& entry, uint16_t property)
{
    const client::Field& field = entry.about.fields.list[property];
    entry.about.IsSet(entry.object, property) = false;
    entry.about.fields.TypeOf(field).clear(ValueOf(entry, field));
}

} // namespace

void Decoder::Read(sd_bus_message* message, Entry& entry)
{
    values_.clear();
    invalidated_.clear();
    refusal_.clear();
    Require(sd_bus_message_enter_container(message, 'a', "{sv}"), enter);
    while (Require(sd_bus_message_enter_container(message, 'e', "sv"), enter) > 0)
    {
        ReadOne(message, entry);
        Require(sd_bus_message_exit_container(message), leave);
    }
    Require(sd_bus_message_exit_container(message), leave);
}

void Decoder::ReadOne(sd_bus_message* message, Entry& entry)
{
    const client::Interface& interface = *entry.properties->interface;
    const char* name = nullptr;
    Require(sd_bus_message_read_basic(message, 's', &name), "sd_bus_message_read_basic");
    const client::Position found = interface.PositionOf(name);
    const bool twice = std::ranges::any_of(values_, [&](const Decoded& each)
                                           { return each.property == found.number; });
    if (!found.is_property || twice)
    {
        Require(sd_bus_message_skip(message, "v"), "sd_bus_message_skip");
        return;
    }
    const client::Type& type = interface.TypeOf(interface.properties[found.number]);
    const char* contents = nullptr;
    Require(sd_bus_message_peek_type(message, nullptr, &contents), "sd_bus_message_peek_type");
    if (std::strcmp(contents, type.signature) != 0)
    {
        Refuse(entry, name, contents, type.signature);
        Require(sd_bus_message_skip(message, "v"), "sd_bus_message_skip");
        return;
    }
    Require(sd_bus_message_enter_container(message, 'v', contents), enter);
    Decoded& decoded =
        values_.emplace_back(Decoded{found.number, Fingerprint(message, contents), {}});
    Require(sd_bus_message_rewind(message, 0), "sd_bus_message_rewind");
    type.read(message, decoded.value.Emplace(type));
    Require(sd_bus_message_exit_container(message), leave);
}

void Decoder::Refuse(Entry& entry, const char* name, const char* got, const char* wanted)
{
    ++entry.refused;
    refusal_ = std::string(name) + " has type " + got + " instead of " + wanted;
    BMCBUS_LOG_AS(error, bmcbus::log::librarySource, "Decode",
                  "refused %s.%s at %s: type %s instead of %s", entry.interface(), name,
                  entry.path().c_str(), got, wanted);
}

std::span<const uint16_t> Decoder::Store(Entry& entry, bool whole)
{
    const size_t size = entry.properties->interface->properties.size();
    changed_.clear();
    const std::unique_ptr<std::vector<uint16_t>> untold =
        whole ? std::move(entry.invalidated) : nullptr;
    if (invalidates() && !entry.invalidated)
    {
        entry.invalidated = std::make_unique<std::vector<uint16_t>>();
    }
    const std::lock_guard lock(entry.mutex());
    for (Decoded& decoded : values_)
    {
        const client::Field& field = entry.about.fields.list[decoded.property];
        bool& is_set = entry.about.IsSet(entry.object, decoded.property);
        if (!is_set || entry.prints()[decoded.property] != decoded.print)
        {
            changed_.push_back(decoded.property);
        }
        entry.about.fields.TypeOf(field).move(ValueOf(entry, field), decoded.value.get());
        is_set = true;
        entry.prints()[decoded.property] = decoded.print;
    }
    const auto brought = [&](uint16_t property)
    {
        return std::ranges::any_of(values_,
                                   [&](const Decoded& each) { return each.property == property; });
    };
    for (uint16_t i = 0; whole && i < size; ++i)
    {
        const bool set = entry.about.IsSet(entry.object, i);
        const bool was_told = !untold || std::ranges::find(*untold, i) == untold->end();
        if (!brought(i) && (set || !was_told))
        {
            Unset(entry, i);
            changed_.push_back(i);
        }
    }
    for (const uint16_t property : invalidated_)
    {
        std::vector<uint16_t>& told_later = *entry.invalidated;
        if (entry.about.IsSet(entry.object, property) &&
            std::ranges::find(told_later, property) == told_later.end())
        {
            told_later.push_back(property);
        }
        Unset(entry, property);
    }
    values_.clear();
    std::ranges::sort(changed_);
    return changed_;
}

void Decoder::ReadInvalidated(sd_bus_message* message, const Entry& entry)
{
    Require(sd_bus_message_enter_container(message, 'a', "s"), enter);
    const char* name = nullptr;
    while (Require(sd_bus_message_read_basic(message, 's', &name), "sd_bus_message_read_basic") > 0)
    {
        const client::Position found = entry.properties->interface->PositionOf(name);
        if (found.is_property)
        {
            invalidated_.push_back(found.number);
        }
    }
    Require(sd_bus_message_exit_container(message), leave);
}

} // namespace bmcbus::live
