#include <bmcbus/live/handle.hpp>

#include "bus/bus.hpp"
#include "live/hub.hpp"
#include "live/reporting.hpp"

#include <bmcbus/sdbusplus.hpp>

#include <cerrno>

namespace bmcbus::live
{
namespace
{

// Both become parts of match rules, so nothing else than such names may pass.
void Check(const std::string& path, const std::string& service)
{
    const bool whole =
        path.find('\0') == std::string::npos && service.find('\0') == std::string::npos;
    if (!whole || sd_bus_object_path_is_valid(path.c_str()) <= 0)
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

Handle::Handle(sd_bus* bus, const client::CachedClass& about, std::string path, std::string service,
               std::shared_ptr<Hooks> hooks)
{
    Check(path, service);
    Hub& hub = Hub::Of(bus);
    const Hub::Scope scope(hub);
    auto entry = std::make_unique<Entry>(about, path, std::move(hooks));
    object_ = entry->object;
    entry_ = entry.get();
    hub.Add(std::move(entry), service);
}

Handle& Handle::operator=(Handle&& other) noexcept
{
    std::swap(entry_, other.entry_);
    std::swap(object_, other.object_);
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
    return entry_->state();
}

std::optional<std::chrono::microseconds> Handle::Age() const
{
    const std::lock_guard lock(entry_->mutex());
    if (entry_->stale_since < 0)
    {
        return {};
    }
    return std::chrono::microseconds(entry_->stale_since == 0 ? 0 : Now() - entry_->stale_since);
}

LiveReport Handle::Report() const
{
    return ReportOf(*entry_);
}

} // namespace bmcbus::live
