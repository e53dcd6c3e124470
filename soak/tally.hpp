#pragma once

// How often what was done.

#include <cstddef>
#include <map>
#include <string>

namespace soak
{

class Tally
{
  public:
    void Add(const std::string& kind, size_t count = 1) { counts[kind] += count; }
    void Add(const Tally& other)
    {
        for (const auto& [kind, count] : other.counts)
        {
            counts[kind] += count;
        }
    }
    void Clear() { counts.clear(); }
    // "forks 3, posts 120"
    std::string Text() const
    {
        std::string text;
        for (const auto& [kind, count] : counts)
        {
            text += (text.empty() ? "" : ", ") + kind + " " + std::to_string(count);
        }
        return text;
    }

  private:
    std::map<std::string, size_t> counts;
};

} // namespace soak
