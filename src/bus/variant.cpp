// A value is the letter of its type and, beside it, a number, a text, or a pointer to the contents
// of a container. Those are counted and never change, so that copies share them, in other threads
// as well.

#include "bus/variant_inside.hpp"

#include <cstring>
#include <stdexcept>

namespace bmcbus
{
Variant::Variant() noexcept : bits_(0), type_('\0') {}

Variant::Variant(const Variant& other) : Variant()
{
    Copy(other);
}

Variant::Variant(Variant&& other) noexcept : Variant()
{
    Move(other);
}

Variant& Variant::operator=(const Variant& other)
{
    return *this = Variant(other);
}

Variant& Variant::operator=(Variant&& other) noexcept
{
    if (this != &other)
    {
        // What is dropped may hold `other`.
        Variant taken(std::move(other));
        Drop();
        Move(taken);
    }
    return *this;
}

Variant::~Variant()
{
    Drop();
}

Variant::Variant(const char* text) : Variant(OfText('s', text)) {}

Variant::Variant(std::string_view text) : Variant(OfText('s', std::string(text))) {}

void Variant::Copy(const Variant& other)
{
    if (other.IsText())
    {
        std::construct_at(&text_, other.text_);
    }
    else if (other.IsNode())
    {
        std::construct_at(&node_, other.node_);
    }
    else
    {
        bits_ = other.bits_;
    }
    type_ = other.type_;
}

void Variant::Move(Variant& other) noexcept
{
    if (other.IsText())
    {
        std::construct_at(&text_, std::move(other.text_));
    }
    else if (other.IsNode())
    {
        std::construct_at(&node_, std::move(other.node_));
    }
    else
    {
        bits_ = other.bits_;
    }
    type_ = other.type_;
    other.Drop();
}

void Variant::Drop() noexcept
{
    if (IsText())
    {
        std::destroy_at(&text_);
    }
    else if (IsNode())
    {
        std::destroy_at(&node_);
    }
    bits_ = 0;
    type_ = '\0';
}

Variant Variant::Number(char type, uint64_t bits) noexcept
{
    Variant made;
    made.bits_ = bits;
    made.type_ = type;
    return made;
}

Variant Variant::OfText(char type, std::string text) noexcept
{
    Variant made;
    std::construct_at(&made.text_, std::move(text));
    made.type_ = type;
    return made;
}

Variant Variant::OfNode(std::shared_ptr<const Node> node) noexcept
{
    Variant made;
    const char type = node->signature.front();
    std::construct_at(&made.node_, std::move(node));
    made.type_ = type;
    return made;
}

std::string Variant::Signature() const
{
    if (IsNode())
    {
        return node_->signature;
    }
    return HasValue() ? std::string(1, type_) : std::string();
}

std::string_view Variant::NodeSignature() const noexcept
{
    return IsNode() ? std::string_view(node_->signature) : std::string_view();
}

bool Variant::HasSignature(std::string_view signature) const noexcept
{
    return IsNode() && node_->signature == signature;
}

const UnixFd& Variant::Descriptor() const noexcept
{
    return node_->descriptor;
}

std::span<const std::byte> Variant::Raw() const noexcept
{
    return IsNode() ? std::span<const std::byte>(node_->numbers) : std::span<const std::byte>();
}

std::span<const Variant> Variant::Items() const noexcept
{
    return IsNode() ? std::span<const Variant>(node_->items) : std::span<const Variant>();
}

void Variant::Mismatch(const char* wanted) const
{
    throw std::invalid_argument("the value is of type \"" + Signature() + "\", not \"" + wanted +
                                "\"");
}

const Variant* Variant::Dictionary::Find(const Variant& key) const
{
    size_t low = 0;
    for (size_t high = size(); low < high;)
    {
        const size_t middle = low + (high - low) / 2;
        if (Key(middle) < key)
        {
            low = middle + 1;
        }
        else
        {
            high = middle;
        }
    }
    return low < size() && Key(low) == key ? &Value(low) : nullptr;
}

uint64_t WidenedNumber(char type, const std::byte* raw)
{
    const auto widened = [&](auto number)
    {
        std::memcpy(&number, raw, sizeof(number));
        return static_cast<uint64_t>(number);
    };
    switch (type)
    {
        case 'y':
            return widened(uint8_t{});
        case 'n':
            return widened(int16_t{});
        case 'q':
            return widened(uint16_t{});
        case 'i':
            return widened(int32_t{});
        case 'u':
            return widened(uint32_t{});
        default:
            return widened(uint64_t{});
    }
}

void StoreNumber(char type, uint64_t bits, std::byte* raw)
{
    const auto store = [&](auto number) { std::memcpy(raw, &number, sizeof(number)); };
    switch (NumberWidth(type))
    {
        case 1:
            return store(static_cast<uint8_t>(bits));
        case 2:
            return store(static_cast<uint16_t>(bits));
        case 4:
            return store(static_cast<uint32_t>(bits));
        default:
            return store(bits);
    }
}

} // namespace bmcbus
