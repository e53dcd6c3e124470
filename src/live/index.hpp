#pragma once

// Finds the followed objects of a path in constant time, without memory of its own for each.

#include "live/entry.hpp"

namespace bmcbus::live
{

class Index
{
  public:
    void Add(Entry& entry);
    void Remove(Entry& entry);

    size_t size() const { return size_; }

    // Calls `visit` with every entry of `path`. It may neither add nor remove.
    template <class Visit>
    void ForEach(const char* path, Visit visit) const
    {
        if (buckets_.empty())
        {
            return;
        }
        const uint32_t hash = Hash(path);
        for (Entry* entry = buckets_[hash & (buckets_.size() - 1)]; entry != nullptr;
             entry = entry->next)
        {
            if (entry->hash == hash && entry->path() == path)
            {
                visit(*entry);
            }
        }
    }

    template <class Visit>
    void ForAll(Visit visit) const
    {
        for (Entry* entry : buckets_)
        {
            for (; entry != nullptr; entry = entry->next)
            {
                visit(*entry);
            }
        }
    }

    static uint32_t Hash(const char* path)
    {
        uint32_t hash = 2166136261U;
        for (; *path != '\0'; ++path)
        {
            hash = (hash ^ static_cast<unsigned char>(*path)) * 16777619U;
        }
        return hash ^ hash >> 15U;
    }

  private:
    void Grow();

    std::vector<Entry*> buckets_; // as many as a power of two
    size_t size_ = 0;
};

} // namespace bmcbus::live
