#pragma once

/**
 * @file
 * Calls that a coroutine awaits, one by one or together.
 *
 * The call is a part of the waiting coroutine's frame: nothing else is allocated for it, and a
 * frame that is destroyed while it waits takes its call along. It is sent when it is awaited. The
 * coroutine goes on inside the dispatch of the connection, on its thread; any kind of coroutine may
 * wait, also one of other libraries.
 */

#if __cplusplus < 202002L
#error "libbmcbus needs C++20: compile with -std=c++20 or later"
#endif

#include <bmcbus/call.hpp>

#include <coroutine>
#include <cstddef>
#include <tuple>
#include <utility>
#include <vector>

namespace bmcbus
{

namespace detail
{

// What a Task keeps, so that one that is destroyed from within knows it; other coroutines do not.
template <class Promise>
bool Suspends(std::coroutine_handle<Promise> coroutine)
{
    if constexpr (requires { coroutine.promise().Suspends(); })
    {
        return coroutine.promise().Suspends();
    }
    return true;
}
template <class Promise>
void GoesOn(std::coroutine_handle<Promise> coroutine)
{
    if constexpr (requires { coroutine.promise().GoesOn(); })
    {
        coroutine.promise().GoesOn();
    }
}

/** What a call ends with that was awaited before, or moved elsewhere. */
[[gnu::cold, gnu::noinline]] inline CallError SpentError()
{
    return CallError(CallFailure::Refused, error_name::refused, "The call has been made already");
}

/** Who goes on when a call has ended. */
struct Waiter
{
    void (*wake)(void* who);
    void* who;

    /** A coroutine. Nothing of its frame may be touched after waking it. */
    template <class Promise>
    static Waiter Resume(std::coroutine_handle<Promise> suspended)
    {
        return {[](void* frame)
                {
                    const auto coroutine = std::coroutine_handle<Promise>::from_address(frame);
                    GoesOn(coroutine);
                    coroutine.resume();
                },
                suspended.address()};
    }
};

} // namespace detail

/**
 * A call that is sent when it is awaited; `co_await` gives its `Result<T>`.
 *
 * May be moved until then. Made by the `Async_…` members without a completion, and by `Request`.
 * Awaited once, on the thread that dispatches the connection; again, or moved from, it is
 * `CallFailure::Refused`. When the proxy is destroyed
 * meanwhile, the coroutine goes on with `CallFailure::Cancelled`.
 */
template <class T>
class [[nodiscard]] AsyncCall : private detail::PendingCall
{
  public:
    /// @cond internal
    AsyncCall(MessageRef call, CallError* refusal, const detail::ReplyType& reply,
              const CallOptions& how, detail::CallOwner* whose) :
        PendingCall(End), message(std::move(call)), options(how), list(whose), type(&reply)
    {
        if (!message)
        {
            result = Unexpected(std::move(*refusal));
        }
    }
    /// @endcond
    /** Takes what is not sent yet. */
    AsyncCall(AsyncCall&& other) noexcept :
        PendingCall(End),
        message(std::move(other.message)),
        options(other.options),
        list(other.list),
        type(std::exchange(other.type, nullptr)),
        result(std::move(other.result))
    {
    }
    AsyncCall& operator=(AsyncCall&&) = delete;
    ~AsyncCall()
    {
        if (Active())
        {
            Withdraw();
        }
    }

    /** What `co_await` needs: it gives the call's result. @{ */
    bool await_ready() const noexcept { return !message; }

    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> coroutine)
    {
        if (!detail::Suspends(coroutine))
        {
            return true;
        }
        bool ended = false;
        Begin(detail::Waiter::Resume(coroutine), &ended);
        if (ended)
        {
            detail::GoesOn(coroutine);
        }
        return !ended;
    }

    Result<T> await_resume() { return std::move(Ended()); }
    /** @} */

    /// @cond internal
    // Sends it. One that ends at once sets `*ended` and wakes nobody.
    void Begin(detail::Waiter then, bool* ended)
    {
        waiter = then;
        early = ended;
        Start(std::move(message), options, list);
        if (!*ended)
        {
            early = nullptr;
        }
    }
    Result<T>& Ended()
    {
        if (std::exchange(type, nullptr) == nullptr)
        {
            result = Unexpected(detail::SpentError());
        }
        return result;
    }
    // Ends it as if it had not been sent, unless it has ended.
    void Abort()
    {
        if (Active())
        {
            Withdraw();
            Complete(nullptr);
        }
    }
    /// @endcond

  private:
    static void End(PendingCall& base, const detail::Outcome* outcome)
    {
        auto& self = static_cast<AsyncCall&>(base);
        if (outcome != nullptr)
        {
            self.result = detail::ResultOf<T>(*outcome, *self.type);
        }
        else
        {
            self.result = Unexpected(detail::CancelledError());
        }
        if (self.early != nullptr)
        {
            *self.early = true;
            return;
        }
        self.waiter.wake(self.waiter.who);
    }

    MessageRef message;
    CallOptions options;
    detail::CallOwner* list;
    const detail::ReplyType* type; // null once the result was taken, or all of it moved
    detail::Waiter waiter{};
    bool* early = nullptr;
    Result<T> result{};
};

namespace detail
{

/** Waits until the last of several calls has ended. */
class Gathering
{
  public:
    template <class T>
    void Send(AsyncCall<T>& call)
    {
        if (call.await_ready())
        {
            return;
        }
        bool ended = false;
        ++left;
        call.Begin({[](void* self) { static_cast<Gathering*>(self)->Arrive(); }, this}, &ended);
        if (ended)
        {
            --left;
        }
    }

    /** After the last Send(): whether any call is still under way. */
    bool Wait(Waiter then)
    {
        waiter = then;
        return --left != 0;
    }

  private:
    void Arrive()
    {
        if (--left == 0)
        {
            waiter.wake(waiter.who);
        }
    }

    size_t left = 1; // one for who sends
    Waiter waiter{};
};

template <class Calls>
class AllOf
{
  public:
    explicit AllOf(Calls all) : calls(std::move(all)) {}

    bool await_ready() const noexcept { return false; }

    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> coroutine)
    {
        if (!Suspends(coroutine))
        {
            return true;
        }
        Each([this](auto& call) { gathering.Send(call); });
        if (gathering.Wait(Waiter::Resume(coroutine)))
        {
            return true;
        }
        GoesOn(coroutine);
        return false;
    }

  protected:
    template <class Do>
    void Each(Do act)
    {
        if constexpr (requires { calls.begin(); })
        {
            for (auto& call : calls)
            {
                act(call);
            }
        }
        else
        {
            std::apply([&](auto&... call) { (act(call), ...); }, calls);
        }
    }

    Calls calls;

  private:
    Gathering gathering;
};

} // namespace detail

/** Several calls of one moment; see `All()`. */
template <class... T>
class [[nodiscard]] AllCalls : public detail::AllOf<std::tuple<AsyncCall<T>...>>
{
  public:
    using detail::AllOf<std::tuple<AsyncCall<T>...>>::AllOf;

    /** What `co_await` gives. */
    std::tuple<Result<T>...> await_resume()
    {
        return std::apply([](auto&... call)
                          { return std::tuple<Result<T>...>(std::move(call.Ended())...); },
                          this->calls);
    }
};

/** Any number of calls of one type; see `All()`. */
template <class T>
class [[nodiscard]] AllOfMany : public detail::AllOf<std::vector<AsyncCall<T>>>
{
  public:
    using detail::AllOf<std::vector<AsyncCall<T>>>::AllOf;

    /** What `co_await` gives. */
    std::vector<Result<T>> await_resume()
    {
        std::vector<Result<T>> results;
        results.reserve(this->calls.size());
        for (AsyncCall<T>& call : this->calls)
        {
            results.push_back(std::move(call.Ended()));
        }
        return results;
    }
};

/**
 * Sends all @p calls and waits for the last of them; one that fails does not end the others.
 *
 * @code
 * const auto [fans, power] = co_await bmcbus::All(thermal.Async_Get_fanPWMData(),
 *                                                 reporting.Async_Get_SystemInputPower());
 * @endcode
 */
template <class... T>
AllCalls<T...> All(AsyncCall<T>... calls)
{
    return AllCalls<T...>(std::tuple<AsyncCall<T>...>(std::move(calls)...));
}

/** The same for as many as there are; the results come in the order of the calls. */
template <class T>
AllOfMany<T> All(std::vector<AsyncCall<T>> calls)
{
    return AllOfMany<T>(std::move(calls));
}

} // namespace bmcbus
