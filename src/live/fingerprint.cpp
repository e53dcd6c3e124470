// A hash over a value's types and bytes as they stand in a message, so that two values can be told
// apart without keeping the first.

#include "live/fingerprint.hpp"

#include "bus/bus.hpp"

#include <cstddef>
#include <cstring>

namespace bmcbus::live
{
namespace
{

uint64_t Mix(uint64_t hash, uint64_t value)
{
    // The finalizer of SplitMix64 over both.
    uint64_t x = hash * 0x9e3779b97f4a7c15ULL + value + 0x632be59bd9b4e019ULL;
    x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27U)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31U);
}

uint64_t MixBytes(uint64_t hash, const void* data, size_t size)
{
    const auto* at = static_cast<const unsigned char*>(data);
    hash = Mix(hash, size);
    for (; size >= 8; size -= 8, at += 8)
    {
        uint64_t word = 0;
        std::memcpy(&word, at, 8);
        hash = Mix(hash, word);
    }
    uint64_t rest = 0;
    std::memcpy(&rest, at, size);
    return Mix(hash, rest);
}

// The hash of everything from the read position to the end of the container.
uint64_t All(sd_bus_message* message);

uint64_t Basic(sd_bus_message* message, char type)
{
    union
    {
        uint64_t number;
        const char* text;
    } value{};
    Require(sd_bus_message_read_basic(message, type, &value), "sd_bus_message_read_basic");
    if (type == 's' || type == 'o' || type == 'g')
    {
        return MixBytes(0, value.text, std::strlen(value.text));
    }
    return Mix(0, value.number);
}

uint64_t Container(sd_bus_message* message, char type, const char* contents)
{
    constexpr const char* numbers = "ynqiuxtd";
    if (type == 'a' && contents[1] == '\0' && std::strchr(numbers, *contents) != nullptr)
    {
        const void* data = nullptr;
        size_t size = 0;
        // Needs the byte order of this machine, as nearly every message has it.
        if (sd_bus_message_read_array(message, *contents, &data, &size) >= 0)
        {
            return MixBytes(0, data, size);
        }
    }
    Require(sd_bus_message_enter_container(message, type, contents),
            "sd_bus_message_enter_container");
    uint64_t hash = static_cast<unsigned char>(type);
    if (type == 'a' && *contents == '{')
    {
        while (Require(sd_bus_message_at_end(message, 0), "sd_bus_message_at_end") == 0)
        {
            const char* entry = nullptr;
            Require(sd_bus_message_peek_type(message, nullptr, &entry), "sd_bus_message_peek_type");
            hash += Container(message, 'e', entry);
        }
    }
    else
    {
        hash = Mix(hash, All(message));
    }
    Require(sd_bus_message_exit_container(message), "sd_bus_message_exit_container");
    return hash;
}

uint64_t All(sd_bus_message* message)
{
    uint64_t hash = 0;
    char type = 0;
    const char* contents = nullptr;
    while (Require(sd_bus_message_peek_type(message, &type, &contents),
                   "sd_bus_message_peek_type") > 0)
    {
        hash = Mix(hash,
                   contents != nullptr ? Container(message, type, contents) : Basic(message, type));
    }
    return hash;
}

} // namespace

uint64_t Fingerprint(sd_bus_message* message, const char* type)
{
    // Most properties are one number or text: sd-bus need not be asked for what is known.
    const bool basic = type[1] == '\0' && *type != 'v';
    return basic ? Mix(0, Basic(message, *type)) : All(message);
}

} // namespace bmcbus::live
