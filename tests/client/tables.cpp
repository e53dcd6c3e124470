// Tables that do not fit their class do not compile.

#include <bmcbus/client/cached.hpp>

#include <array>

namespace
{

using namespace bmcbus::client;

// What a description's slot takes.
template <class Slot, class Given>
constexpr bool takes = std::is_convertible_v<Given, Slot> || std::is_constructible_v<Slot, Given>;

struct Kept
{
    const std::string path;
    bool ready = false;
    std::vector<double> values;
    bool set_flags[1] = {};
};

constexpr auto path = BMCBUS_MEMBER(Kept, path);
constexpr auto ready = BMCBUS_MEMBER(Kept, ready);
constexpr auto values = BMCBUS_MEMBER(Kept, values);
constexpr auto setFlags = BMCBUS_MEMBER(Kept, set_flags);

static_assert(takes<decltype(Description::ready), decltype(ready)>);
static_assert(!takes<decltype(Description::ready), decltype(path)>);
static_assert(!takes<decltype(Description::path), decltype(ready)>);
static_assert(!takes<decltype(CachedClass::service), decltype(path)>);
static_assert(takes<decltype(Description::set_flags), decltype(setFlags)>);
static_assert(!takes<decltype(Description::set_flags), decltype(values)>);
static_assert(!std::is_convertible_v<size_t, decltype(Description::ready)>);

// A field's type must be one of those that its class knows.
constexpr std::array<const Type*, 2> types = {&typeOf<bool>, &typeOf<std::vector<double>>};
constexpr std::array<const Type*, 1> others = {&typeOf<std::string>};
static_assert(MakeField(values, types).type_index == 1);

template <const auto& Types>
concept HaveTheType = requires
{
    typename std::integral_constant<uint8_t, MakeField(values, Types).type_index>;
};
static_assert(HaveTheType<types>);
static_assert(!HaveTheType<others>);

// Properties stand in ascending order of their names, each once.
constexpr bool Sorted(const char* names, std::span<const Property> properties)
{
    return InOrder({.name = nullptr,
                    .short_name = nullptr,
                    .label = nullptr,
                    .enter = nullptr,
                    .leave = nullptr,
                    .property_names = names,
                    .properties = properties,
                    .alternatives = {},
                    .variant = nullptr});
}
constexpr Property two[] = {{.name_offset = 0, .type_index = 0, .writable = false},
                            {.name_offset = 2, .type_index = 0, .writable = false}};
static_assert(Sorted("a\0b", two));
static_assert(!Sorted("b\0a", two));
static_assert(!Sorted("a\0a", two));

} // namespace
