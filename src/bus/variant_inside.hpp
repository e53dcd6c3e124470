#pragma once

// The inside of Variant, for the sources that read, write, compare and convert it.

#include <bmcbus/variant.hpp>

#include <string_view>
#include <vector>

namespace bmcbus
{

// Containers nest as deep in a message that a bus lets pass.
constexpr unsigned deepestNesting = 64;

// The contents of a container. Items stand in order; those at a place of type `v` are what the `v`
// holds. Arrays of numbers are kept as their bytes, and of a descriptor there is nothing else.
struct Variant::Node
{
    std::string signature;
    std::vector<Variant> items;
    std::vector<std::byte> numbers;
    UnixFd descriptor;
    unsigned depth = 0;
};

// What the sources of Variant use of it beyond what callers do.
struct VariantInside
{
    static char Type(const Variant& value) { return value.type_; }
    static bool IsText(const Variant& value) { return value.IsText(); }
    static const std::string& TextOf(const Variant& value) { return value.text_; }
    static uint64_t Bits(const Variant& value) { return value.bits_; }
    static unsigned Depth(const Variant& value) { return value.IsNode() ? value.node_->depth : 0; }
    static const void* Node(const Variant& value) { return value.node_.get(); }
    static const UnixFd& Descriptor(const Variant& value) { return value.Descriptor(); }
    static std::span<const std::byte> Raw(const Variant& value) { return value.Raw(); }
    static std::span<const Variant> Items(const Variant& value) { return value.Items(); }
    static std::string_view NodeSignature(const Variant& value) { return value.NodeSignature(); }

    static Variant Number(char type, uint64_t bits) { return Variant::Number(type, bits); }
    static Variant Text(char type, std::string text)
    {
        return Variant::OfText(type, std::move(text));
    }
    static Variant Descriptor(UnixFd fd) { return Variant::OfDescriptor(std::move(fd)); }
    static Variant Numbers(char type, const void* data, size_t bytes)
    {
        return Variant::OfNumbers(type, data, bytes);
    }
    static Variant Container(std::string signature, std::vector<Variant> items)
    {
        return Variant::OfItems(std::move(signature), std::move(items));
    }
};

// The bytes of one number of this type in memory; 0 for what is no number, as bool.
constexpr size_t NumberWidth(char type)
{
    switch (type)
    {
        case 'y':
            return 1;
        case 'n':
        case 'q':
            return 2;
        case 'i':
        case 'u':
            return 4;
        case 'x':
        case 't':
        case 'd':
            return 8;
        default:
            return 0;
    }
}

// The number at the start of `raw`, its bits widened with its sign.
uint64_t WidenedNumber(char type, const std::byte* raw);

// Puts a number there, NumberWidth(type) bytes of it.
void StoreNumber(char type, uint64_t bits, std::byte* raw);

} // namespace bmcbus
