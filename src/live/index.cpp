// A hash table by path, chained through the entries themselves.

#include "live/index.hpp"

namespace bmcbus::live
{

void Index::Grow()
{
    std::vector<Entry*> more(buckets_.empty() ? 16 : buckets_.size() * 2);
    for (Entry* entry : buckets_)
    {
        while (entry != nullptr)
        {
            Entry*& head = more[entry->hash & (more.size() - 1)];
            Entry* const following = std::exchange(entry->next, head);
            head = std::exchange(entry, following);
        }
    }
    buckets_.swap(more);
}

void Index::Add(Entry& entry)
{
    if (size_ >= buckets_.size())
    {
        Grow();
    }
    entry.hash = Hash(entry.path().c_str());
    Entry*& head = buckets_[entry.hash & (buckets_.size() - 1)];
    entry.next = std::exchange(head, &entry);
    ++size_;
}

void Index::Remove(Entry& entry)
{
    Entry** link = &buckets_[entry.hash & (buckets_.size() - 1)];
    while (*link != &entry)
    {
        link = &(*link)->next;
    }
    *link = entry.next;
    --size_;
}

} // namespace bmcbus::live
