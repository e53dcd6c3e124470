#pragma once

// The large messages: an object of 55 properties, a signal of 70 arguments, and the struct that a
// contender without classes of its own decodes them into.

#include "contender.hpp"

#include <com/catalogue.hpp>

#include <array>
#include <cstdint>
#include <map>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace bench::power
{

constexpr const char* path = "/power";
constexpr const char* interface = "com.tamm.bmc.power.PowerReporting";
constexpr const char* signal = "NotifyPwrReportingData";

struct Member
{
    const char* name;
    const char* type;
};

constexpr size_t propertyCount = 55;
constexpr auto properties = []
{
    std::array<Member, propertyCount> listed{};
    size_t count = 0;
    catalogue::Members<ClientCache::com::tamm::bmc::power::PowerReporting>::Each(
        [&](const auto& member) {
            listed.at(count++) = {member.name, member.type};
        });
    return listed;
}();
static_assert(properties.back().name != nullptr);

// The signal has the first fifty properties' values, then these.
constexpr const char* signalTail[] = {"ad", "ad", "ad", "ad", "ad", "ad", "ay", "as", "au", "ad",
                                      "ad", "ad", "ad", "ad", "ad", "ad", "d",  "d",  "d",  "d"};
constexpr size_t argumentCount = 70;

constexpr const char* ArgumentType(size_t number)
{
    return number < 50 ? properties[number].type : signalTail[number - 50];
}

// A value of one of the types.
struct Slot
{
    std::vector<uint8_t> bytes;
    std::vector<uint16_t> shorts;
    std::vector<uint32_t> words;
    std::vector<double> doubles;
    std::vector<std::string> texts;
    uint8_t byte = 0;
    uint16_t half = 0;
    uint32_t word = 0;
    double real = 0;
};

struct Object
{
    Slot slots[argumentCount];
};

// What every message carries.
inline const Slot& Sample()
{
    static const Slot sample{.bytes = {1, 2, 3, 4, 5, 6, 7, 8},
                             .shorts = {100, 200, 300, 400, 500, 600, 700, 800},
                             .words = {1, 2, 3, 4, 5, 6, 7, 8},
                             .doubles = {1, 2, 3, 4, 5, 6, 7, 8},
                             .texts = {"VR0", "VR1", "VR2", "VR3", "VR4", "VR5", "VR6", "VR7"},
                             .byte = 1,
                             .half = 2,
                             .word = 3,
                             .real = 12.5};
    return sample;
}

// Calls `use` with the member of a slot that holds values of this type.
template <class Use>
void WithMember(const char* type, Use use)
{
    const bool array = type[0] == 'a';
    switch (array ? type[1] : type[0])
    {
        case 'y':
            return array ? use(&Slot::bytes) : use(&Slot::byte);
        case 'q':
            return array ? use(&Slot::shorts) : use(&Slot::half);
        case 'u':
            return array ? use(&Slot::words) : use(&Slot::word);
        case 'd':
            return array ? use(&Slot::doubles) : use(&Slot::real);
        case 's':
            return use(&Slot::texts);
        default:
            std::abort();
    }
}

// Where the value of a name goes.
inline const std::map<std::string_view, size_t>& Index()
{
    static const auto index = []
    {
        std::map<std::string_view, size_t> made;
        for (size_t i = 0; i < propertyCount; ++i)
        {
            made[properties[i].name] = i;
        }
        return made;
    }();
    return index;
}

// The properties in the order of a message: "declared", "shuffled", or else in that of their names,
// which is what services that keep them in a std::map send.
inline std::vector<size_t> Order(std::string_view order)
{
    std::vector<size_t> numbers;
    for (const auto& [name, number] : Index())
    {
        numbers.push_back(number);
    }
    if (order == "declared")
    {
        std::iota(numbers.begin(), numbers.end(), 0);
    }
    else if (order == "shuffled")
    {
        // 21 and 55 have no common divisor, so that each comes once.
        for (size_t i = 0; i < propertyCount; ++i)
        {
            numbers[i] = (i * 21 + 13) % propertyCount;
        }
    }
    return numbers;
}

} // namespace bench::power
