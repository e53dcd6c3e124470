// What cached proxies and subscribers share: names to numbers, change callbacks, and objects that
// may go while their handlers run.

#include <bmcbus/client/object.hpp>

#include "client/member_log.hpp"
#include "client/signal.hpp"

#include <cstdio>
#include <span>
#include <utility>

namespace bmcbus::client
{

MemberName::MemberName(const char* prefix, const char* name)
{
    static_cast<void>(std::snprintf(text_, sizeof(text_), "%s%s", prefix, name));
}

void LogException(const char* label, const char* prefix, const char* member,
                  const std::exception& error)
{
    CLIENT_LOG_FORMAT(error, label, MemberName(prefix, member).c_str(), "EXCEPTION %s.%d.%s: %s",
                      error.what());
}

Position Interface::PositionOf(const char* wanted) const
{
    size_t first = 0;
    for (size_t last = properties.size(); first < last;)
    {
        const size_t middle = (first + last) / 2;
        const int order = std::strcmp(wanted, NameOf(properties[middle]));
        if (order == 0)
        {
            return {.number = static_cast<uint16_t>(middle), .is_property = true};
        }
        (order < 0 ? last : first) = order < 0 ? middle : middle + 1;
    }
    return {.number = static_cast<uint16_t>(first), .is_property = false};
}

bool Interface::LeavesOut(std::string_view wanted) const
{
    std::string_view each = left_out != nullptr ? left_out : "";
    while (!each.empty() && each != wanted)
    {
        each = each.data() + each.size() + 1;
    }
    return !each.empty();
}

std::optional<uint16_t> Interface::Find(std::string_view wanted) const
{
    const Position position = PositionOf(wanted.data());
    // The search stops at a zero byte inside.
    if (position.is_property && wanted == NameOf(properties[position.number]))
    {
        return position.number;
    }
    return {};
}

void AddCallback(Anchor& anchor, Callback callback)
{
    if (callback.function == nullptr)
    {
        return;
    }
    const std::lock_guard lock(anchor.mutex());
    const CallbackList before = CopyCallbacks(anchor);
    auto longer = before ? std::make_shared<std::vector<Callback>>(*before)
                         : std::make_shared<std::vector<Callback>>();
    longer->push_back(callback);
    if (anchor.callbacks() == nullptr)
    {
        anchor.callbacks() = new Callbacks;
    }
    anchor.callbacks()->list = std::move(longer);
}

CallbackList CopyCallbacks(Anchor& anchor)
{
    return anchor.callbacks() != nullptr ? anchor.callbacks()->list : CallbackList();
}

// Requests under way, the last first.
struct Anchor::Request
{
    Slot slot;
    Request* next;
};

Anchor::~Anchor()
{
    for (Running* round = running_; round != nullptr; round = round->next_)
    {
        round->anchor_ = nullptr;
    }
    while (pending_ != nullptr)
    {
        delete std::exchange(pending_, pending_->next);
    }
    delete callbacks_;
}

void Anchor::Await(Slot request)
{
    auto* const latest = new Request{std::move(request), pending_};
    pending_ = latest;
}

void Anchor::Answered()
{
    for (Request** link = &pending_; *link != nullptr;)
    {
        sd_bus_slot* const slot = (*link)->slot.get();
        if (sd_bus_get_current_slot(sd_bus_slot_get_bus(slot)) == slot)
        {
            delete std::exchange(*link, (*link)->next);
        }
        else
        {
            link = &(*link)->next;
        }
    }
}

Anchor::Running::Running(Anchor& anchor) : anchor_(&anchor)
{
    const std::lock_guard lock(anchor.mutex());
    next_ = std::exchange(anchor.running_, this);
}

Anchor::Running::~Running()
{
    if (anchor_ == nullptr)
    {
        return;
    }
    const std::lock_guard lock(anchor_->mutex());
    Running** link = &anchor_->running_;
    while (*link != this)
    {
        link = &(*link)->next_;
    }
    *link = next_;
}

void RunCallbacks(Anchor& anchor, const char* function, const CallbackList& callbacks)
{
    // The object may be gone after a callback.
    const Description& about = anchor.about();
    void* const object = anchor.object();
    const Anchor::Running running(anchor);
    const std::span<const Callback> list =
        callbacks ? std::span<const Callback>(*callbacks) : std::span<const Callback>();
    for (const Callback& callback : list)
    {
        try
        {
            about.invoke(object, callback);
        }
        catch (const std::exception& error)
        {
            LogException(about.label, function, "", error);
        }
        if (running.gone())
        {
            break;
        }
    }
    CLIENT_LOG_FORMAT(trace, about.label, function, about.leave);
}

void CopyValue(const Anchor& anchor, void* value, uint32_t field)
{
    const Field& from = anchor.about().fields.list[field];
    const std::lock_guard lock(anchor.mutex());
    anchor.TypeOf(from).copy(value, anchor.Value(from));
}

void CopyFlagged(const Anchor& anchor, bool& is_set, void* value, uint32_t field)
{
    const Field& from = anchor.about().fields.list[field];
    const std::lock_guard lock(anchor.mutex());
    is_set = anchor.IsSet(field);
    anchor.TypeOf(from).copy(value, anchor.Value(from));
}

void SetValue(Anchor& anchor, const void* value, uint32_t field)
{
    const std::lock_guard lock(anchor.mutex());
    StoreValue(anchor, value, field);
}

void StoreValue(Anchor& anchor, const void* value, uint32_t field)
{
    const Field& to = anchor.about().fields.list[field];
    anchor.TypeOf(to).copy(anchor.Value(to), value);
    anchor.IsSet(field) = true;
}

std::string Path(const Anchor& anchor)
{
    const std::lock_guard lock(anchor.mutex());
    return anchor.path();
}

bool Ready(const Anchor& anchor)
{
    const std::lock_guard lock(anchor.mutex());
    return anchor.ready();
}

uint32_t SignalCount(const Anchor& anchor)
{
    const std::lock_guard lock(anchor.mutex());
    return anchor.signal_count();
}

void CopyAll(const Anchor& anchor, void* const* out)
{
    const std::lock_guard lock(anchor.mutex());
    for (const Field& field : anchor.about().fields.list)
    {
        anchor.TypeOf(field).copy(*out++, anchor.Value(field));
    }
}

} // namespace bmcbus::client
