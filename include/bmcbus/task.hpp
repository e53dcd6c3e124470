#pragma once

/**
 * @file
 * A coroutine that makes calls.
 */

#include <bmcbus/async_call.hpp>
#include <bmcbus/export.h>

#include <coroutine>
#include <exception>
#include <optional>
#include <utility>

namespace bmcbus
{

template <class T>
class Task;

namespace detail
{

/** Logs what a coroutine threw that nobody waits for. */
BMCBUS_EXPORT void ReportUnawaited(const std::exception_ptr& thrown) noexcept;

/** Says that the compiler made a wrong frame, and ends the process. */
[[noreturn]] BMCBUS_EXPORT void ReportWrongFrame() noexcept;

#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
// g++ 12.2 gives a coroutine with `co_await` in a condition a frame that cannot be resumed, unless
// it has a variable at its outermost level (GCC bug 106188). That shows before it first waits.
struct AtStart
{
    std::coroutine_handle<> right;

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> given) const noexcept
    {
        if (given != right)
        {
            ReportWrongFrame();
        }
        return false;
    }
    void await_resume() const noexcept {}
};
#endif

// What the promises of all tasks have in common: who waits for it, and whether it may be destroyed.
//
// A frame may be destroyed while it is suspended only. One that is destroyed from within, by code
// that it or a task it waits for is running, is marked and goes at the next point where it would
// wait.
class TaskPromise
{
  public:
    TaskPromise() = default;
    TaskPromise(const TaskPromise&) = delete;
    TaskPromise& operator=(const TaskPromise&) = delete;
    // Of two tasks that wait for each other either may go first.
    ~TaskPromise()
    {
        if (outer != nullptr)
        {
            outer->inner = nullptr;
        }
        if (inner != nullptr)
        {
            inner->outer = nullptr;
        }
    }

#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
    AtStart initial_suspend() noexcept
    {
        return {self};
    }
#else
    std::suspend_never initial_suspend() noexcept
    {
        return {};
    }
#endif
    void unhandled_exception() noexcept
    {
        thrown = std::current_exception();
    }

    // At a point where it would wait: false when it was destroyed instead.
    bool Suspends()
    {
        running = false;
        if (TaskPromise* ended = Abandoned())
        {
            ended->self.destroy(); // and this one with it
            return false;
        }
        return true;
    }
    void GoesOn()
    {
        running = true;
    }

  protected:
    template <class T>
    friend class bmcbus::Task;

    bool Running() const
    {
        return running || (inner != nullptr && inner->Running());
    }

    // The outermost one that was given up, of this and those that wait for it.
    TaskPromise* Abandoned()
    {
        TaskPromise* found = nullptr;
        for (TaskPromise* task = this; task != nullptr; task = task->outer)
        {
            found = task->abandoned ? task : found;
        }
        return found;
    }

    void Rethrow()
    {
        if (thrown)
        {
            std::rethrow_exception(std::exchange(thrown, nullptr));
        }
    }

    // At its end: who goes on.
    std::coroutine_handle<> Finish() noexcept
    {
        running = false;
        if (abandoned)
        {
            End();
            return std::noop_coroutine();
        }
        if (outer != nullptr)
        {
            TaskPromise* next = std::exchange(outer, nullptr);
            next->inner = nullptr;
            next->running = true;
            return next->self;
        }
        if (continuation)
        {
            return std::exchange(continuation, nullptr);
        }
        if (detached)
        {
            End();
        }
        return std::noop_coroutine();
    }

    // Frees the frame, once it is at its end.
    void End() noexcept
    {
        if (thrown)
        {
            ReportUnawaited(thrown);
        }
        self.destroy();
    }

    struct AtEnd
    {
        bool await_ready() noexcept { return false; }
        template <class Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> ended) noexcept
        {
            return ended.promise().Finish();
        }
        void await_resume() noexcept {}
    };

    std::coroutine_handle<> self;
    std::coroutine_handle<> continuation; // of another kind of coroutine
    TaskPromise* outer = nullptr;         // a task that waits for this one
    TaskPromise* inner = nullptr;         // the task that this one waits for
    std::exception_ptr thrown;
    bool running = true;
    bool detached = false;
    bool abandoned = false;

  public:
    AtEnd final_suspend() noexcept
    {
        return {};
    }
};

template <class T>
class ValuePromise : public TaskPromise
{
  public:
    template <class U>
    void return_value(U&& given)
    {
        value.emplace(std::forward<U>(given));
    }

  protected:
    template <class>
    friend class bmcbus::Task;

    T Take()
    {
        Rethrow();
        return std::exchange(value, std::nullopt).value();
    }

    std::optional<T> value;
};

template <>
class ValuePromise<void> : public TaskPromise
{
  public:
    void return_void() noexcept {}

  protected:
    template <class>
    friend class bmcbus::Task;

    void Take() { Rethrow(); }
};

} // namespace detail

/**
 * A coroutine that starts when it is called and runs until it first has to wait.
 *
 * The object owns it: destroying it while it waits ends it there, with everything it waits for,
 * down to the call under way. From within it ends at the next point where it would wait. `co_await`
 * of a task gives what it returns, or throws what it threw; what nobody awaits is logged.
 *
 * With g++ 12 do not write `co_await` into the condition of `if`, `while` or `for` in a coroutine
 * that has no variable at its outermost level: the compiler gets its frame wrong (GCC bug 106188).
 * Such a coroutine ends the process where it starts, with a line of level 1 that says why.
 *
 * It goes on inside the dispatch of the connection that it waits for: no thread is involved.
 * Awaited on that thread, once. A coroutine of another kind that awaits a task must not be
 * destroyed before it, unless the task is its own.
 *
 * @code
 * bmcbus::Task<> Watch(FanReporting& fans)
 * {
 *     const auto count = co_await fans.Async_Get_fanCount({.timeout = 1s});
 *     if (!count) co_return;
 *     ...
 * }
 * bmcbus::Task<> watch = Watch(fans); // runs until the object goes; Watch(fans).Detach() runs on
 * @endcode
 */
template <class T = void>
class [[nodiscard]] Task
{
  public:
    /** What the compiler keeps a coroutine's state in; not for direct use. */
    class promise_type : public detail::ValuePromise<T>
    {
      public:
        /** The task that the coroutine's caller gets. */
        Task get_return_object()
        {
            auto handle = std::coroutine_handle<promise_type>::from_promise(*this);
            this->self = handle;
            return Task(handle);
        }
    };

    Task() noexcept = default;
    /** Takes the coroutine. */
    Task(Task&& other) noexcept : coroutine(std::exchange(other.coroutine, nullptr)) {}
    /** Cancels its own coroutine and takes the other's. */
    Task& operator=(Task&& other) noexcept
    {
        if (this != &other)
        {
            // Ends last: what it holds may use this object, or destroy it.
            const Task old(std::exchange(coroutine, std::exchange(other.coroutine, nullptr)));
        }
        return *this;
    }
    ~Task() { Cancel(); }

    /** Whether it has run to its end; true for an empty object. */
    bool Done() const noexcept { return !coroutine || coroutine.done(); }

    /** Ends it where it waits, as destroying the object does; leaves an empty one. */
    void Cancel() noexcept
    {
        if (auto ended = std::exchange(coroutine, nullptr))
        {
            if (ended.done())
            {
                ended.promise().End();
            }
            else if (ended.promise().Running())
            {
                ended.promise().abandoned = true;
            }
            else
            {
                ended.destroy();
            }
        }
    }

    /** Lets it run on by itself; it frees itself at its end. */
    void Detach() noexcept
    {
        if (auto alone = std::exchange(coroutine, nullptr))
        {
            if (alone.done())
            {
                alone.promise().End();
            }
            else
            {
                alone.promise().detached = true;
            }
        }
    }

    /**
     * What it returned, or throws what it threw, once; `std::bad_optional_access` when there is
     * nothing to get: it is not done, or the object is empty.
     */
    T Get()
    {
        if (!coroutine || !coroutine.done())
        {
            throw std::bad_optional_access();
        }
        return coroutine.promise().Take();
    }

    /** What `co_await` needs: it gives what the task returns, or throws what it throws. @{ */
    bool await_ready() const noexcept { return Done(); }

    template <class Promise>
    bool await_suspend(std::coroutine_handle<Promise> waiting)
    {
        if (!detail::Suspends(waiting))
        {
            return true;
        }
        if constexpr (std::is_base_of_v<detail::TaskPromise, Promise>)
        {
            detail::TaskPromise& outer = waiting.promise();
            outer.inner = &coroutine.promise();
            coroutine.promise().outer = &outer;
        }
        else
        {
            coroutine.promise().continuation = waiting;
        }
        return true;
    }

    T await_resume() { return Get(); }
    /** @} */

  private:
    explicit Task(std::coroutine_handle<promise_type> started) noexcept : coroutine(started) {}

    std::coroutine_handle<promise_type> coroutine;
};

} // namespace bmcbus
