// What is tried again after a pause, and the one timer for all of it. While nothing waits there is
// no timer.

#include "live/hub.hpp"
#include "log.hpp"

#include <algorithm>

namespace bmcbus::live
{
namespace
{

constexpr int64_t firstPause = 100'000; // microseconds
constexpr int64_t longestPause = 60'000'000;

} // namespace

int64_t PauseAfter(unsigned int failures)
{
    return std::min(longestPause, firstPause << std::min(failures, 10U));
}

void Hub::Pause(Entry& entry)
{
    CancelRead(entry);
    entry.due = Now() + PauseAfter(entry.failures);
    entry.failures = static_cast<uint8_t>(std::min(entry.failures + 1, 100));
    pausing_.push_back(&entry);
    entry.awaits = Awaits::Pause;
    Arm();
}

// The timer is that of the connection's calls, where a loop looks at it. A loop that does nothing
// but sd_bus_process() and sd_bus_wait() knows no times but those of sd-bus's own calls. There a
// call to ourselves, which nobody answers, ends with a timeout at the time that is wanted, if the
// bus allows it.
void Hub::Arm()
{
    int64_t due = search_ ? 0 : search_due_; // one that is under way sees to the next
    if (owners_due_ != 0)
    {
        due = due == 0 ? owners_due_ : std::min(due, owners_due_);
    }
    for (const Entry* entry : pausing_)
    {
        due = due == 0 ? entry->due : std::min(due, entry->due);
    }
    if (due == 0 || !usable() || (timer_due_ != 0 && timer_due_ <= due))
    {
        return;
    }
    timer_due_ = due;
    silence_.reset();
    if (detail::Hub* const calls = detail::Hub::Find(bus()))
    {
        calls->Set(alarm_, static_cast<uint64_t>(due));
        if (calls->Watched() || denied_)
        {
            return;
        }
    }
    const char* self = nullptr;
    sd_bus_message* call = nullptr;
    if (sd_bus_get_unique_name(bus(), &self) < 0 ||
        sd_bus_message_new_method_call(bus(), &call, self, "/", silence, "Wait") < 0)
    {
        return;
    }
    const MessageRef owned(call);
    sd_bus_slot* slot = nullptr;
    static_cast<void>(
        sd_bus_call_async(bus(), &slot, call, OnSilence, this,
                          static_cast<uint64_t>(std::max<int64_t>(due - Now(), 1'000))));
    silence_.reset(slot);
}

void Hub::CheckDue()
{
    if (timer_due_ == 0)
    {
        return;
    }
    const int64_t now = Now();
    if (now < timer_due_)
    {
        return;
    }
    timer_due_ = 0;
    for (Entry* entry : std::vector<Entry*>(pausing_))
    {
        if (entry->due <= now)
        {
            WantRead(*entry);
        }
    }
    if (owners_due_ != 0 && owners_due_ <= now)
    {
        AskOwnersAgain();
    }
    flush_ = true;
    Arm();
}

void Hub::OnAlarm(void* user_data) noexcept
{
    Hub& hub = *static_cast<Hub*>(user_data);
    const Scope scope(hub);
    hub.Guard(
        [&]
        {
            if (sd_bus_is_open(hub.bus()) == 0)
            {
                hub.Ended(false); // somebody closed it, and it will not say so
                return;
            }
            hub.CheckDue();
            hub.Flush();
        });
}

int Hub::OnSilence(sd_bus_message* answer, void* user_data, sd_bus_error* /*error*/) noexcept
{
    Hub& hub = *static_cast<Hub*>(user_data);
    const Scope scope(hub);
    hub.silence_.reset();
    if (sd_bus_error_has_name(sd_bus_message_get_error(answer), SD_BUS_ERROR_ACCESS_DENIED) != 0)
    {
        // As a system bus does where no file of the program's own allows it.
        hub.denied_ = true;
        BMCBUS_LOG(misuse,
                   "the bus forbids calls to oneself: nothing wakes this loop to try again, "
                   "attach the connection by bmcbus/attach");
    }
    hub.Guard(
        [&]
        {
            hub.CheckDue();
            hub.Flush();
        });
    return 1;
}

} // namespace bmcbus::live
