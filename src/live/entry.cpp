// The life of a followed object's record. It lies in one piece with the fingerprints of its
// properties, so it is made and freed by hand.

#include "live/entry.hpp"

#include "client/signal.hpp"

namespace bmcbus::live
{

Entry::Entry(const client::Description& description, const client::CachedClass* cached,
             const client::SignalClass* sent, void* made, std::shared_ptr<Hooks> callables) :
    about(description),
    properties(cached),
    signal(sent),
    object(made),
    hooks(std::move(callables)),
    since(Now())
{
}

std::unique_ptr<Entry> Entry::Make(const client::CachedClass& about, std::string path,
                                   std::shared_ptr<Hooks> hooks)
{
    const size_t prints = about.interface->properties.size();
    client::MadeObject object(about.make(std::move(path), true), about.destroy);
    std::unique_ptr<Entry> entry(new (prints)
                                     Entry(about, &about, nullptr, object.get(), std::move(hooks)));
    static_cast<void>(object.release());
    std::uninitialized_fill_n(entry->prints(), prints, 0);
    return entry;
}

std::unique_ptr<Entry> Entry::Make(const client::SignalClass& about, std::string path,
                                   std::shared_ptr<Hooks> hooks)
{
    client::MadeObject object(about.make(std::move(path)), about.destroy);
    std::unique_ptr<Entry> entry(new (size_t{0})
                                     Entry(about, nullptr, &about, object.get(), std::move(hooks)));
    static_cast<void>(object.release());
    return entry;
}

void* Entry::operator new(size_t size, size_t prints)
{
    return ::operator new(size + prints * sizeof(uint64_t));
}

void Entry::operator delete(void* at, size_t /*prints*/)
{
    ::operator delete(at);
}

void Entry::operator delete(void* at)
{
    ::operator delete(at);
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
    if (signal == nullptr)
    {
        about.ready(object) = to == LiveState::Live;
    }
    state_.store(to, std::memory_order_release);
    return true;
}

} // namespace bmcbus::live
