// What the process holds, read from /proc and from the bus: descriptors, threads, connections,
// match rules, memory.

#include "measure.hpp"

#include "sanitizer.hpp"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace soak
{
namespace
{

size_t Entries(const char* folder)
{
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

size_t ResidentKb()
{
    size_t all = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

size_t HeapKb()
{
    if (test::addressSanitizer || test::threadSanitizer)
    {
        return 0;
    }
    const auto heap = mallinfo2();
    return (heap.uordblks + heap.hblkhd) / 1024;
}

std::optional<size_t> MatchRules(World& world)
{
    try
    {
        const auto rules = world
                               .Call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules")
                               .at(0)
                               .Get<std::map<std::string, std::vector<std::string>>>();
        size_t count = 0;
        for (const auto& [connection, texts] : rules)
        {
            count += texts.size();
        }
        return count;
    }
    catch (const Failure&)
    {
        return std::nullopt;
    }
}

bool SameCounts(const Figures& a, const Figures& b)
{
    return a.descriptors == b.descriptors && a.threads == b.threads &&
           a.connections == b.connections && a.matchRules == b.matchRules;
}

std::string Difference(const char* what, size_t now, size_t before, size_t allowance = 0)
{
    const bool same = allowance == 0 ? now == before : now <= before + allowance;
    return same ? ""
                : ", " + std::string(what) + " " + std::to_string(before) + " -> " +
                      std::to_string(now);
}

} // namespace

std::string Figures::Text() const
{
    return "resident " + std::to_string(residentKb) + " kB, heap " +
           (heapKb == 0 ? "unknown" : std::to_string(heapKb) + " kB") + ", descriptors " +
           std::to_string(descriptors) + ", threads " + std::to_string(threads) + ", connections " +
           std::to_string(connections) + ", match rules " +
           (matchRules ? std::to_string(*matchRules) : "unknown");
}

std::string Figures::GrowthSince(const Figures& first, const Allowance& allowance) const
{
    const std::string memory =
        first.heapKb == 0
            ? ""
            : Difference("resident kB", residentKb, first.residentKb, allowance.residentKb) +
                  Difference("heap kB", heapKb, first.heapKb, allowance.heapKb);
    const std::string rules =
        matchRules.has_value() == first.matchRules.has_value()
            ? Difference("match rules", matchRules.value_or(0), first.matchRules.value_or(0))
            : ", match rules counted at one of two times only";
    return memory + Difference("descriptors", descriptors, first.descriptors) +
           Difference("threads", threads, first.threads) +
           Difference("connections", connections, first.connections) + rules;
}

Figures Measure(World& world)
{
    malloc_trim(0);
    return {.residentKb = ResidentKb(),
            .heapKb = HeapKb(),
            .descriptors = Entries("/proc/self/fd"),
            .threads = Entries("/proc/self/task"),
            .connections = world.Bus().Connections().size(),
            .matchRules = MatchRules(world)};
}

Figures MeasureSettled(World& world, const std::optional<Figures>& first)
{
    constexpr size_t steady = 20;
    Figures now = Measure(world);
    size_t same = 0;
    kit::Until(
        [&]
        {
            const Figures next = Measure(world);
            same = SameCounts(next, now) ? same + 1 : 0;
            now = next;
            return first ? SameCounts(now, *first) : same == steady;
        },
        kit::patience / 3);
    return now;
}

} // namespace soak
