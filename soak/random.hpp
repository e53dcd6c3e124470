#pragma once

// Choices that a seed repeats, on every machine: the standard's distributions do not promise that.

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace soak
{

class Random
{
  public:
    explicit Random(uint64_t seed) : engine(seed) {}

    size_t Below(size_t bound) { return static_cast<size_t>(engine() % bound); }
    size_t Between(size_t least, size_t most) { return least + Below(most - least + 1); }
    bool OneIn(size_t count) { return Below(count) == 0; }
    template <class T>
    T& From(std::vector<T>& list)
    {
        return list.at(Below(list.size()));
    }

  private:
    std::mt19937_64 engine;
};

} // namespace soak
