#pragma once

/**
 * @file
 * Calls under way: the handle of one, and what the run-time half keeps of it.
 *
 * **Completion.** It runs exactly once, on the thread that dispatches the connection, or never:
 * after `Cancel()`, after the handle was destroyed, and after the proxy was. It may do anything:
 * release the proxy, cancel other calls, start new ones. What it throws is logged and goes no
 * further. A call that cannot be sent completes before the function that was to start it returns,
 * so a completion that tries again at once should count how often.
 *
 * **Threads.** A call is started, cancelled and completed on the thread that its connection belongs
 * to; nothing here may be used by two threads at a time.
 *
 * **Connection.** A pending call does not keep its connection alive: hold a reference
 * (`sd_bus_default_system` for the thread's default one), as a loop that dispatches it does anyhow.
 * When the connection ends, in whatever way, every pending call is told with
 * `CallFailure::Disconnected`: in `sd_bus_process` when the peer closed it, at the next turn of an
 * sd-event loop or the next `Dispatcher::Dispatch` when somebody called `sd_bus_close`, inside the
 * `sd_bus_unref` that drops the last reference. There the connection is no longer usable: open a
 * new one after it, not in the completion.
 *
 * **Time.** Timeouts are ours, not libsystemd's. In an sd-event loop that was
 * attached before the call, or by `attach::SdEvent` at any time, and in loops that wait no
 * longer than `sd_bus_get_timeout` says, they come on time by themselves; a loop that watches
 * descriptors alone watches `Dispatcher::Descriptor()` in place of the connection's.
 *
 * **fork().** In the child nothing of a parent's call happens: no completion runs, nothing is sent.
 * Handles may be destroyed there.
 */

#include <bmcbus/call_options.hpp>
#include <bmcbus/export.h>
#include <bmcbus/refs.hpp>
#include <bmcbus/reply_type.hpp>
#include <bmcbus/result.hpp>

#include <cstdint>
#include <mutex>
#include <type_traits>
#include <utility>

namespace bmcbus
{

class Call;

namespace detail
{

struct Hub;
struct PendingCall;

/** How a call ended: the reply, positioned at its start, or the error, to be moved from. */
struct Outcome
{
    sd_bus_message* reply;
    CallError* error;
};

/** The pending calls of one proxy, which end with it. */
class BMCBUS_EXPORT CallOwner
{
  public:
    CallOwner() = default;
    CallOwner(const CallOwner&) = delete;
    CallOwner& operator=(const CallOwner&) = delete;
    /** Cancels them all. On the thread that dispatches their connections. */
    ~CallOwner();

  private:
    friend struct PendingCall;

    std::mutex mutex;
    PendingCall* first = nullptr;
    bool closing = false;
};

/** What is kept of a call while it is under way; the rest of the object belongs to who made it. */
struct PendingCall
{
    /**
     * Ends the call, which is part of nothing any more and may be freed. Null: it was cancelled,
     * and its completion must not run.
     */
    using Finish = void (*)(PendingCall& call, const Outcome* outcome);

    BMCBUS_EXPORT explicit PendingCall(Finish done) noexcept;
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    /**
     * Sends @p message, after which the call finishes exactly once, possibly before this returns.
     * Null as @p owner: it depends on no proxy.
     */
    BMCBUS_EXPORT void Start(MessageRef message, const CallOptions& options,
                             CallOwner* owner) noexcept;

    /** Ends it before it is sent. */
    BMCBUS_EXPORT void Refuse(CallError error) noexcept;

    /** Takes it back from all that refer to it; its `finish` does not run. */
    BMCBUS_EXPORT void Withdraw() noexcept;

    /** Whether it has been sent and has not ended. */
    bool Active() const noexcept { return hub != nullptr; }

    // For the run-time half.
    void Complete(const Outcome* outcome) noexcept;
    void Fail(CallError error) noexcept;
    bool Join(CallOwner* owner) noexcept;
    void Leave() noexcept;

    Finish finish;
    sd_bus_slot* slot = nullptr; // borrowed from the connection, which owns it
    Hub* hub = nullptr;
    uint64_t deadline = 0;
    PendingCall* child = nullptr; // in the hub's heap, as the next two
    PendingCall* sibling = nullptr;
    PendingCall* before = nullptr;
    Call* handle = nullptr;
    CallOwner* owner = nullptr;
    PendingCall* next = nullptr; // among the owner's, as the next one
    PendingCall** link = nullptr;
};

/** What an awaited call ends with when its proxy goes. */
BMCBUS_EXPORT CallError CancelledError() noexcept;

/** Reads a reply into @p value; false with @p error filled when it is not of that type. */
BMCBUS_EXPORT bool Decode(sd_bus_message* reply, const ReplyType& type, void* value,
                          CallError& error) noexcept;

/**
 * A result whose value @p fill puts where it is told; false with the error filled where there is
 * none.
 */
template <class T, class Fill>
[[gnu::always_inline]] inline Result<T> Filled(const Fill& fill)
{
    CallError error;
    Result<T> result;
    void* value = nullptr;
    if constexpr (!std::is_void_v<T>)
    {
        value = std::addressof(*result);
    }
    if (!fill(value, error))
    {
        result = Unexpected(std::move(error));
    }
    return result;
}

/** The result of a call that ended with @p outcome. */
template <class T>
Result<T> ResultOf(const Outcome& outcome, const ReplyType& type)
{
    if (outcome.reply == nullptr)
    {
        return Result<T>(unexpect, std::move(*outcome.error));
    }
    return Filled<T>([&](void* value, CallError& error)
                     { return Decode(outcome.reply, type, value, error); });
}

/** Sends @p call and waits for its end; false with @p error filled when there is no value. */
BMCBUS_EXPORT bool Exchange(sd_bus_message* call, const CallOptions& options, const ReplyType& type,
                            void* value, CallError& error) noexcept;

/** The blocking form of a call. */
template <class T>
Result<T> TryCall(MessageRef call, CallError* refusal, const CallOptions& options,
                  const ReplyType& type)
{
    if (!call)
    {
        return Result<T>(unexpect, std::move(*refusal));
    }
    return Filled<T>([&](void* value, CallError& error)
                     { return Exchange(call.get(), options, type, value, error); });
}

/** One that is told how to read its reply when it is started. */
struct TypedCall : PendingCall
{
    using PendingCall::PendingCall;

    const ReplyType* type = nullptr;
};

/** A call with a completion of the user's. Frees itself. */
template <class T, class Completion>
struct CallbackCall : TypedCall
{
    template <class C>
    explicit CallbackCall(C&& then) : TypedCall(End), completion(std::forward<C>(then))
    {
    }

    static void End(PendingCall& base, const Outcome* outcome)
    {
        const Freed freed{static_cast<CallbackCall*>(&base)};
        if (outcome != nullptr)
        {
            freed.self->completion(ResultOf<T>(*outcome, *freed.self->type));
        }
    }

    Completion completion;

  private:
    struct Freed
    {
        CallbackCall* self;
        ~Freed() { delete self; }
    };
};

} // namespace detail

/**
 * A call under way. Destroying it cancels the call; see the file's description.
 *
 * Moving it moves the call. An empty one refers to none: a call that has ended leaves its handle
 * empty.
 */
class [[nodiscard]] Call
{
  public:
    Call() noexcept = default;
    /** Takes the call. */
    BMCBUS_EXPORT Call(Call&& other) noexcept;
    /** Ends its own call without a completion and takes the other's. */
    BMCBUS_EXPORT Call& operator=(Call&& other) noexcept;
    BMCBUS_EXPORT ~Call();

    /** Ends it without a completion; what it holds is freed. The service may still do the work. */
    BMCBUS_EXPORT void Cancel() noexcept;

    /** Lets it go on without a handle. It still ends with its proxy. */
    BMCBUS_EXPORT void Detach() noexcept;

    /** Whether it has not ended. */
    bool Pending() const noexcept { return call != nullptr; }
    /** Whether it has not ended. */
    explicit operator bool() const noexcept { return Pending(); }

    /// @cond internal
    BMCBUS_EXPORT explicit Call(detail::PendingCall& pending) noexcept;
    /// @endcond

  private:
    friend struct detail::PendingCall;

    detail::PendingCall* call = nullptr;
};

namespace detail
{

/** Sends @p message, or tells of @p refusal when there is none. */
BMCBUS_EXPORT Call Launch(TypedCall& call, const ReplyType& type, MessageRef message,
                          CallError& refusal, const CallOptions& options,
                          CallOwner* owner) noexcept;

} // namespace detail

} // namespace bmcbus
