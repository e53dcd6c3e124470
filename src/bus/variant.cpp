// A value is the letter of its type and, beside it, a number, a text, or a pointer to the contents
// of a container. Those are counted and never change, so that copies share them, in other threads
// as well.

#include "bus/signature.hpp"
#include "bus/variant_inside.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace bmcbus
{
namespace
{

unsigned DepthBelow(std::span<const Variant> items, unsigned deepest)
{
    for (const Variant& item : items)
    {
        if (!item.HasValue())
        {
            throw std::invalid_argument("an element of a container has no value");
        }
        deepest = std::max(deepest, VariantInside::Depth(item));
    }
    return deepest;
}

// How many containers of a message one of this type opens around an item: a `v` counts, and an
// entry of a dictionary as well as the dictionary.
unsigned Levels(std::string_view signature)
{
    const bool dictionary = signature.starts_with("a{");
    std::string_view places = signature.substr(dictionary ? 2 : 1);
    bool wraps = false;
    for (size_t length = 0; (length = CompleteType(places)) > 0; places.remove_prefix(length))
    {
        wraps = wraps || places.front() == 'v';
    }
    return 1U + (dictionary ? 1U : 0U) + (wraps ? 1U : 0U);
}

void RequireFit(const Variant& item, std::string_view wanted)
{
    if (wanted != "v" && item.Signature() != wanted)
    {
        throw std::invalid_argument("a value of type \"" + item.Signature() + "\" stands where \"" +
                                    std::string(wanted) + "\" belongs");
    }
}

void RequireType(const std::string& signature)
{
    if (!IsCompleteType(signature))
    {
        throw std::invalid_argument("no complete D-Bus type: \"" + signature + "\"");
    }
}

// By key; of equal keys the first stays.
void SortEntries(std::vector<Variant>& items)
{
    const size_t count = items.size() / 2;
    bool ascending = true;
    for (size_t i = 1; i < count && ascending; ++i)
    {
        ascending = items[2 * i - 2] < items[2 * i];
    }
    if (ascending)
    {
        return;
    }
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i)
    {
        order[i] = 2 * i;
    }
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return items[a] < items[b]; });
    std::vector<Variant> sorted;
    sorted.reserve(items.size());
    for (const size_t at : order)
    {
        if (sorted.empty() || sorted[sorted.size() - 2] != items[at])
        {
            sorted.push_back(std::move(items[at]));
            sorted.push_back(std::move(items[at + 1]));
        }
    }
    items = std::move(sorted);
}

} // namespace

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

Variant Variant::OfDescriptor(UnixFd fd)
{
    const auto node = std::make_shared<Node>();
    node->signature = "h";
    node->descriptor = std::move(fd);
    return OfNode(node);
}

Variant Variant::OfNumbers(char type, const void* data, size_t bytes)
{
    const auto node = std::make_shared<Node>();
    node->signature = {'a', type};
    node->depth = 1;
    const auto* const first = static_cast<const std::byte*>(data);
    node->numbers.assign(first, first + bytes);
    return OfNode(node);
}

Variant Variant::OfItems(std::string signature, std::vector<Variant> items)
{
    const auto node = std::make_shared<Node>();
    const bool dictionary = signature.starts_with("a{");
    node->depth = DepthBelow(items, 0) + Levels(signature);
    if (node->depth > deepestNesting)
    {
        throw std::invalid_argument("containers are nested more than 64 deep");
    }
    if (dictionary)
    {
        SortEntries(items);
    }
    node->signature = std::move(signature);
    node->items = std::move(items);
    return OfNode(node);
}

Variant Variant::MakeNested(Variant content)
{
    std::vector<Variant> items;
    items.push_back(std::move(content));
    return OfItems("v", std::move(items));
}

Variant Variant::MakeArray(std::string_view element, std::vector<Variant> items)
{
    std::string signature = "a" + std::string(element);
    RequireType(signature);
    if (element.front() == '{')
    {
        throw std::invalid_argument("entries of a dictionary stand outside one");
    }
    for (const Variant& item : items)
    {
        RequireFit(item, element);
    }
    const size_t width = NumberWidth(element.front());
    if (width == 0)
    {
        return OfItems(std::move(signature), std::move(items));
    }
    std::vector<std::byte> numbers(items.size() * width);
    for (size_t i = 0; i < items.size(); ++i)
    {
        StoreNumber(element.front(), items[i].bits_, numbers.data() + i * width);
    }
    return OfNumbers(element.front(), numbers.data(), numbers.size());
}

Variant Variant::MakeDictionary(std::string_view key, std::string_view value,
                                std::vector<std::pair<Variant, Variant>> entries)
{
    std::string signature = "a{" + std::string(key) + std::string(value) + "}";
    RequireType(signature);
    RequireType(std::string(value)); // not a part of it alone
    std::vector<Variant> items;
    items.reserve(2 * entries.size());
    for (auto& [itsKey, itsValue] : entries)
    {
        RequireFit(itsKey, key);
        RequireFit(itsValue, value);
        items.push_back(std::move(itsKey));
        items.push_back(std::move(itsValue));
    }
    return OfItems(std::move(signature), std::move(items));
}

Variant Variant::MakeStruct(std::vector<Variant> fields)
{
    std::string signature = "(";
    for (const Variant& field : fields)
    {
        signature += field.Signature();
    }
    signature += ')';
    RequireType(signature);
    // A field that is a nested `v` stands at a place of that type.
    for (Variant& field : fields)
    {
        if (field.type_ == 'v')
        {
            field = Variant(field.Items().front());
        }
    }
    return OfItems(std::move(signature), std::move(fields));
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
