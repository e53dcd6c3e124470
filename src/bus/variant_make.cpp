// Values that are containers, made of other values. What could not travel is refused here: types
// that are none, items of other types than their place, nesting deeper than a bus lets pass.

#include "bus/signature.hpp"
#include "bus/variant_inside.hpp"

#include <algorithm>
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

Variant
Variant::MakeDictionary(std::string_view key, std::string_view value,
                        // NOLINTNEXTLINE(performance-unnecessary-value-param): they are moved on
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

} // namespace bmcbus
