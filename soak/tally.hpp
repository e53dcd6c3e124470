#pragma once

// What was done: how often each operation, and what the threading tools carried for them.

#include <algorithm>
#include <cstddef>
#include <vector>

namespace soak
{

struct Tally
{
    std::vector<size_t> done; // of each operation, in the order of their list
    size_t posts = 0;
    size_t sends = 0;
    size_t tasks = 0;

    Tally& operator+=(const Tally& other)
    {
        done.resize(std::max(done.size(), other.done.size()));
        for (size_t i = 0; i < other.done.size(); ++i)
        {
            done[i] += other.done[i];
        }
        posts += other.posts;
        sends += other.sends;
        tasks += other.tasks;
        return *this;
    }
};

} // namespace soak
