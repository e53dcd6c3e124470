#include <bmcbus/client/object.hpp>

#include "client/member_log.hpp"
#include "client/signal.hpp"

#include <cstdio>
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

void Callbacks::Add(Callback callback)
{
    auto longer = list_ ? std::make_shared<std::vector<Callback>>(*list_)
                        : std::make_shared<std::vector<Callback>>();
    longer->push_back(callback);
    list_ = std::move(longer);
}

void AddCallback(std::mutex& mutex, Callbacks& callbacks, const Callback& callback)
{
    if (callback.function != nullptr)
    {
        const std::lock_guard lock(mutex);
        callbacks.Add(callback);
    }
}

Anchor::~Anchor()
{
    for (Running* round = running_; round != nullptr; round = round->next_)
    {
        round->anchor_ = nullptr;
    }
}

void Anchor::Await(Slot request)
{
    pending_.push_front(std::move(request));
}

void Anchor::Answered()
{
    pending_.remove_if(
        [](const Slot& request)
        { return sd_bus_get_current_slot(sd_bus_slot_get_bus(request.get())) == request.get(); });
}

Anchor::Running::Running(Anchor& anchor, std::mutex& mutex) : anchor_(&anchor), mutex_(mutex)
{
    const std::lock_guard lock(mutex);
    next_ = std::exchange(anchor.running_, this);
}

Anchor::Running::~Running()
{
    if (anchor_ == nullptr)
    {
        return;
    }
    const std::lock_guard lock(mutex_);
    Running** link = &anchor_->running_;
    while (*link != this)
    {
        link = &(*link)->next_;
    }
    *link = next_;
}

void CountSignal(void* object, const Description& about)
{
    auto& count = At<uint32_t>(object, about.signal_count);
    if (++count == 0)
    {
        count = 1;
    }
}

void RunCallbacks(void* object, const Description& about, const char* function,
                  const Callbacks& callbacks)
{
    const Anchor::Running running(At<Anchor>(object, about.anchor),
                                  At<std::mutex>(object, about.object_mutex));
    for (const Callback& callback : callbacks.list())
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

void CopyAll(std::mutex& mutex, const void* object, const Fields& fields, void* const* out)
{
    const std::lock_guard lock(mutex);
    for (const Field& field : fields.list)
    {
        fields.TypeOf(field).copy(*out++, static_cast<const std::byte*>(object) + field.value);
    }
}

} // namespace bmcbus::client
