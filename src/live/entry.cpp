#include "live/entry.hpp"

#include <ctime>

namespace bmcbus::live
{

int64_t Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1'000;
}

Entry::Entry(const client::CachedClass& description, std::string& path,
             std::shared_ptr<Hooks> callables) :
    about(description), object(description.make(path)), hooks(std::move(callables)), since(Now())
{
    const size_t size = about.interface->properties.size();
    prints = std::make_unique<uint64_t[]>(size);
}

Entry::~Entry()
{
    about.destroy(object);
}

const std::string& Entry::path() const
{
    return about.path(object);
}

std::mutex& Entry::mutex() const
{
    return about.object_mutex(object);
}

bool Entry::Enter(LiveState to)
{
    const LiveState before = state();
    if (before == to)
    {
        return false;
    }
    since = Now();
    const std::lock_guard lock(mutex());
    if (before == LiveState::Live)
    {
        stale_since = since;
    }
    if (to == LiveState::Live)
    {
        stale_since = 0;
    }
    about.ready(object) = to == LiveState::Live;
    state_.store(to, std::memory_order_release);
    return true;
}

} // namespace bmcbus::live
