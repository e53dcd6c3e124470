#pragma once

// What the process holds, and what it holds of the bus.

#include "world.hpp"

#include <cstddef>
#include <optional>
#include <string>

namespace soak
{

// How much more memory than after the first check still counts as flat: what allocator, loader and
// connections keep for the next use. It is a bound on the whole run.
struct Allowance
{
    size_t residentKb = 4096;
    size_t heapKb = 256;
};

struct Figures
{
    size_t residentKb = 0;
    size_t heapKb = 0; // 0: the allocator does not tell, as those of the sanitizers and valgrind
    size_t descriptors = 0;
    size_t threads = 0;
    size_t connections = 0;
    std::optional<size_t> matchRules; // nothing where the bus does not count them

    // "resident 9000 kB, heap 400 kB, descriptors 12, ..."
    std::string Text() const;

    // What differs, in words; empty when it is flat: memory may grow by the allowance, nothing else
    // may change. An allocator that does not tell what is in use keeps what is not; memory is then
    // not looked at.
    std::string GrowthSince(const Figures& first, const Allowance& allowance) const;
};

// Reads the figures of this moment.
Figures Measure(World& world);

// The same once what was ended before has left: threads that were joined, connections that were
// closed. Until the figures are `first`'s, or stay the same where there is none.
Figures MeasureSettled(World& world, const std::optional<Figures>& first);

} // namespace soak
