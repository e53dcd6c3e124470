// One pending call from start to end. It joins its owner's list and its connection's hub, leaves
// both when it ends, and only then tells whoever waits: a completion may end or start other calls
// and finds nothing half done.

#include <bmcbus/call.hpp>

#include "bus/call_errors.hpp"
#include "bus/call_hub.hpp"
#include "log.hpp"

#include <bmcbus/wire.hpp>

#include <algorithm>
#include <utility>

namespace bmcbus
{

bool CallDeadline::Passed() const
{
    return at != detail::never && detail::Now() >= at;
}

std::chrono::microseconds CallDeadline::Remaining() const
{
    if (at == detail::never)
    {
        return std::chrono::microseconds::max();
    }
    const uint64_t now = detail::Now();
    return std::chrono::microseconds(at > now ? at - now : 0);
}

namespace detail
{
namespace
{

uint64_t Later(uint64_t now, uint64_t span)
{
    return span >= never - now ? never : now + span;
}

} // namespace

uint64_t MomentIn(int64_t microseconds)
{
    return Later(Now(), static_cast<uint64_t>(std::max<int64_t>(microseconds, 0)));
}

uint64_t DeadlineOf(sd_bus* bus, const CallOptions& options, uint64_t now)
{
    uint64_t span = never;
    if (options.timeout == std::chrono::microseconds::zero())
    {
        static_cast<void>(sd_bus_get_method_call_timeout(bus, &span));
    }
    else if (options.timeout != std::chrono::microseconds::max())
    {
        span = static_cast<uint64_t>(std::max<int64_t>(options.timeout.count(), 0));
    }
    return std::min(Later(now, span), options.deadline.At());
}

namespace
{

// In a handler of sd-bus's. Nothing may be thrown through it.
int OnReply(sd_bus_message* reply, void* record, sd_bus_error* /*error*/) noexcept
{
    auto& call = *static_cast<PendingCall*>(record);
    const uint64_t deadline = call.deadline;
    // The slot goes by itself after its handler.
    sd_bus_slot_set_destroy_callback(std::exchange(call.slot, nullptr), nullptr);
    call.Withdraw();
    if (sd_bus_message_is_method_error(reply, nullptr) > 0)
    {
        call.Fail(ReplyError(reply, Now() >= deadline));
    }
    else
    {
        const Outcome outcome = {reply, nullptr};
        call.Complete(&outcome);
    }
    // Zero would look to the caller as if nothing had been done, and let it sleep.
    return 1;
}

// Of a slot that the connection frees: the connection itself is being freed.
void OnSlotGone(void* record)
{
    static_cast<PendingCall*>(record)->hub->Die();
}

// Leaves the slot to its connection.
int Queue(PendingCall& call, sd_bus_message* message, uint64_t span)
{
    sd_bus* bus = sd_bus_message_get_bus(message);
    const int result = sd_bus_call_async(bus, &call.slot, message, OnReply, &call, span);
    if (result >= 0)
    {
        sd_bus_slot_set_destroy_callback(call.slot, OnSlotGone);
        sd_bus_slot_set_floating(call.slot, 1);
        sd_bus_slot_unref(call.slot);
    }
    return result;
}

void TakeBack(sd_bus_slot* slot)
{
    sd_bus_slot_set_destroy_callback(slot, nullptr);
    sd_bus_slot_ref(slot);
    sd_bus_slot_set_floating(slot, 0);
    sd_bus_slot_unref(slot);
}

} // namespace

PendingCall::PendingCall(Finish done) noexcept : finish(done) {}

Call Launch(TypedCall& call, const ReplyType& type, MessageRef message, CallError& refusal,
            const CallOptions& options, CallOwner* owner) noexcept
{
    call.type = &type;
    Call handle(call);
    if (message)
    {
        call.Start(std::move(message), options, owner);
    }
    else
    {
        call.Refuse(std::move(refusal));
    }
    return handle;
}

void PendingCall::Start(MessageRef message, const CallOptions& options, CallOwner* list) noexcept
{
    sd_bus* bus = sd_bus_message_get_bus(message.get());
    const uint64_t now = Now();
    deadline = DeadlineOf(bus, options, now);
    if (deadline <= now)
    {
        Refuse(TimeoutError());
        return;
    }
    int result = 0;
    Hub* const target = Hub::Get(bus, result);
    if (target == nullptr)
    {
        Refuse(StepError(result, "sd_bus_add_match"));
        return;
    }
    if (!Join(list))
    {
        Refuse(CancelledError());
        return;
    }
    result = Queue(*this, message.get(), deadline == never ? never : deadline - now);
    if (result < 0)
    {
        Refuse(StepError(result, "sd_bus_call_async"));
        return;
    }
    target->Add(*this);
    target->RingIfUnsent();
    // Where nobody else holds the connection it ends here, and the call with it.
    message.reset();
}

void PendingCall::Refuse(CallError error) noexcept
{
    Withdraw();
    Fail(std::move(error));
}

void PendingCall::Fail(CallError error) noexcept
{
    const Outcome outcome = {nullptr, &error};
    Complete(&outcome);
}

void PendingCall::Complete(const Outcome* outcome) noexcept
{
    try
    {
        finish(*this, outcome);
    }
    catch (const std::exception& error)
    {
        BMCBUS_LOG(error, "the completion of a call threw: %s", error.what());
    }
    catch (...)
    {
        BMCBUS_LOG(error, "the completion of a call threw something that is no std::exception");
    }
}

void PendingCall::Withdraw() noexcept
{
    if (slot != nullptr)
    {
        TakeBack(std::exchange(slot, nullptr));
    }
    if (hub != nullptr)
    {
        hub->Remove(*this);
    }
    if (owner != nullptr)
    {
        Leave();
    }
    if (handle != nullptr)
    {
        std::exchange(handle, nullptr)->call = nullptr;
    }
}

// Owners.

bool PendingCall::Join(CallOwner* list) noexcept
{
    if (list == nullptr)
    {
        return true;
    }
    const std::lock_guard lock(list->mutex);
    if (list->closing)
    {
        return false;
    }
    owner = list;
    next = list->first;
    link = &list->first;
    if (next != nullptr)
    {
        next->link = &next;
    }
    list->first = this;
    return true;
}

void PendingCall::Leave() noexcept
{
    const std::lock_guard lock(owner->mutex);
    *link = next;
    if (next != nullptr)
    {
        next->link = link;
    }
    owner = nullptr;
}

CallOwner::~CallOwner()
{
    for (;;)
    {
        PendingCall* call = nullptr;
        {
            const std::lock_guard lock(mutex);
            closing = true;
            call = first;
        }
        if (call == nullptr)
        {
            return;
        }
        const bool inherited = call->hub != nullptr && call->hub->Inherited();
        call->Withdraw();
        if (!inherited)
        {
            call->Complete(nullptr);
        }
    }
}

// Replies.

namespace
{

// Types after the expected ones are ignored, as everywhere: services grow.
void ReadReply(sd_bus_message* reply, const ReplyType& type, void* value)
{
    if (type.property)
    {
        client::Enter(reply, SD_BUS_TYPE_VARIANT, type.signature, client::step::enterVariant);
    }
    type.read(reply, value, type.how);
}

// Of a reply that could not be read, mostly because it has other types.
CallError WhyNot(sd_bus_message* reply, const ReplyType& type,
                 const std::exception& failure) noexcept
{
    const char* expected = type.property ? "v" : type.signature;
    const char* found = sd_bus_message_get_signature(reply, 1);
    if (!std::string_view(found).starts_with(expected))
    {
        return TypesError(expected, found);
    }
    char variant = 0;
    if (type.property && (sd_bus_message_rewind(reply, 1) < 0 ||
                          sd_bus_message_peek_type(reply, &variant, &found) < 0 ||
                          found == nullptr || std::string_view(found) != type.signature))
    {
        return TypesError(type.signature, found);
    }
    return ReadError(failure);
}

} // namespace

bool Decode(sd_bus_message* reply, const ReplyType& type, void* value, CallError& error) noexcept
{
    try
    {
        ReadReply(reply, type, value);
        return true;
    }
    catch (const std::exception& failure)
    {
        error = WhyNot(reply, type, failure);
    }
    return false;
}

} // namespace detail

// The handle.

Call::Call(detail::PendingCall& pending) noexcept : call(&pending)
{
    pending.handle = this;
}

Call::Call(Call&& other) noexcept : call(std::exchange(other.call, nullptr))
{
    if (call != nullptr)
    {
        call->handle = this;
    }
}

Call& Call::operator=(Call&& other) noexcept
{
    if (this != &other)
    {
        // Ends last: what its completion holds may use this handle, or destroy it.
        const Call old(std::move(*this));
        call = std::exchange(other.call, nullptr);
        if (call != nullptr)
        {
            call->handle = this;
        }
    }
    return *this;
}

Call::~Call()
{
    Cancel();
}

void Call::Cancel() noexcept
{
    if (call != nullptr)
    {
        detail::PendingCall& ended = *call;
        ended.Withdraw();
        ended.Complete(nullptr);
    }
}

void Call::Detach() noexcept
{
    if (call != nullptr)
    {
        std::exchange(call, nullptr)->handle = nullptr;
    }
}

} // namespace bmcbus
