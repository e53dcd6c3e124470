// What users hold: a handle enters its object into the hub of its connection, and takes it out
// again.

#include <bmcbus/live/handle.hpp>

#include "bus/bus.hpp"
#include "bus/text.hpp"
#include "live/hub.hpp"
#include "live/reporting.hpp"
#include "live/set.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>

namespace bmcbus::live
{
namespace
{

// Both become parts of match rules, so nothing else than such names may pass.
void Check(const std::string& path, const std::string& service)
{
    if (!IsWhole(path) || !IsWhole(service) || sd_bus_object_path_is_valid(path.c_str()) <= 0)
    {
        throw Error(EINVAL, "Live: no object path");
    }
    if (!service.empty() && sd_bus_service_name_is_valid(service.c_str()) <= 0)
    {
        throw Error(EINVAL, "Live: no service name");
    }
}

} // namespace

Hooks::~Hooks() = default;
void Hooks::Change(void* /*object*/, const Changes& /*changes*/) {}
void Hooks::State(void* /*object*/, LiveState /*state*/) {}
void Hooks::Presence(void* /*object*/, bool /*there*/) {}
void Hooks::Arrived(void* /*object*/) {}
void Hooks::Missed(void* /*object*/) {}

template <class About>
void Handle::Follow(sd_bus* bus, const About& about, std::string& path, const std::string& service,
                    std::shared_ptr<Hooks>& hooks)
{
    Check(path, service);
    Hub& hub = Hub::Of(bus);
    const Hub::Scope scope(hub, Hub::Entrance::Handle);
    auto entry = Entry::Make(about, std::move(path), std::move(hooks));
    object_ = entry->object;
    entry_ = &hub.Add(std::move(entry), service);
}

Handle::Handle(sd_bus* bus, const client::CachedClass& about, std::string path,
               const std::string& service, std::shared_ptr<Hooks> hooks)
{
    Follow(bus, about, path, service, hooks);
}

Handle::Handle(sd_bus* bus, const client::SignalClass& about, std::string path,
               const std::string& service, std::shared_ptr<Hooks> hooks)
{
    Follow(bus, about, path, service, hooks);
}

Handle& Handle::operator=(Handle&& other) noexcept
{
    Handle taken(std::move(other));
    std::swap(entry_, taken.entry_);
    std::swap(object_, taken.object_);
    return *this;
}

Handle::~Handle()
{
    if (entry_ != nullptr)
    {
        entry_->hub->Remove(*entry_);
    }
}

LiveState Handle::State() const
{
    return entry_ != nullptr ? entry_->state() : LiveState::Absent;
}

std::optional<std::chrono::microseconds> Handle::Age() const
{
    if (entry_ == nullptr)
    {
        return {};
    }
    const std::lock_guard lock(entry_->mutex());
    if (entry_->stale_since < 0)
    {
        return {};
    }
    return std::chrono::microseconds(entry_->stale_since == 0 ? 0 : Now() - entry_->stale_since);
}

LiveReport Handle::Report() const
{
    return entry_ != nullptr ? ReportOf(*entry_) : LiveReport();
}

SetHandle::SetHandle(sd_bus* bus, const client::CachedClass& about, std::string root,
                     const std::string& service, std::shared_ptr<Hooks> hooks)
{
    Check(root, service);
    Hub& hub = Hub::Of(bus);
    const Hub::Scope scope(hub, Hub::Entrance::Handle);
    auto set = std::make_unique<Set>(about, std::move(root), std::move(hooks));
    set_ = set.get();
    hub.Add(std::move(set), service);
}

SetHandle::~SetHandle()
{
    if (set_ != nullptr)
    {
        set_->hub->Remove(*set_);
    }
}

size_t SetHandle::size() const
{
    return set_ != nullptr ? set_->there.size() : 0;
}

void* SetHandle::At(size_t index) const
{
    return set_->there[index]->object;
}

void* SetHandle::Find(std::string_view path) const
{
    const Entry* const entry = set_ != nullptr ? set_->Find(path) : nullptr;
    return entry != nullptr && entry->added ? entry->object : nullptr;
}

std::optional<LiveReport> SetHandle::Report(std::string_view path) const
{
    const Entry* const entry = set_ != nullptr ? set_->Find(path) : nullptr;
    return entry != nullptr ? std::optional(ReportOf(*entry)) : std::nullopt;
}

} // namespace bmcbus::live
