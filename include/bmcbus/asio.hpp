#pragma once

/**
 * @file
 * Calls for users of Boost.Asio: awaited by completion token.
 *
 * `bmcbus::attach::Asio` dispatches the connection; attached beside `sdbusplus::asio::connection`,
 * which dispatches its messages itself, it has the calls' deadlines kept.
 *
 * @code
 * auto count = co_await bmcbus::Await(fans.Async_Get_fanCount({.timeout = 1s}),
 *                                     boost::asio::use_awaitable);
 * @endcode
 */

#include <utility> // before asio, which forgets it

#include <bmcbus/async_call.hpp>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/context.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/query.hpp>
#include <boost/asio/system_executor.hpp>

#include <memory>
#include <mutex>
#include <type_traits>

namespace bmcbus
{

namespace detail
{

/** The calls under way whose handlers a context is to run; they end with it. */
class AsioCalls : public boost::asio::execution_context::service
{
  public:
    /** One of them, on the heap. */
    struct Entry
    {
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        virtual ~Entry()
        {
            if (calls != nullptr)
            {
                calls->Remove(*this);
            }
        }

        AsioCalls* calls = nullptr;
        Entry* next = nullptr; // in the list of `calls`, as the next one
        Entry** link = nullptr;
    };

    /** How asio finds it in a context. */
    inline static boost::asio::execution_context::id id;

    explicit AsioCalls(boost::asio::execution_context& context) : service(context) {}

    void Add(Entry& entry)
    {
        const std::lock_guard lock(mutex);
        entry.calls = this;
        entry.next = first;
        entry.link = &first;
        if (first != nullptr)
        {
            first->link = &entry.next;
        }
        first = &entry;
    }

  private:
    void Remove(Entry& entry)
    {
        const std::lock_guard lock(mutex);
        *entry.link = entry.next;
        if (entry.next != nullptr)
        {
            entry.next->link = entry.link;
        }
    }

    void shutdown() noexcept override
    {
        while (first != nullptr)
        {
            delete first;
        }
    }

    std::mutex mutex;
    Entry* first = nullptr;
};

/** A call whose result goes to a handler of asio's, by the handler's executor. Frees itself. */
template <class T, class Handler>
class AsioCall : private AsioCalls::Entry
{
  public:
    static void Begin(Handler handler, AsyncCall<T> call)
    {
        auto* self = new AsioCall(std::move(handler), std::move(call));
        self->Join();
        bool ended = self->call_.await_ready();
        if (!ended)
        {
            self->call_.Begin({[](void* who) { static_cast<AsioCall*>(who)->End(false); }, self},
                              &ended);
        }
        if (ended)
        {
            self->End(true);
        }
    }

  private:
    AsioCall(Handler&& handler, AsyncCall<T>&& call) :
        handler_(std::move(handler)), call_(std::move(call))
    {
    }

    void Join()
    {
        const auto executor = boost::asio::get_associated_executor(handler_);
        using Executor = std::remove_const_t<decltype(executor)>;
        if constexpr (!std::is_same_v<Executor, boost::asio::system_executor> &&
                      boost::asio::can_query_v<Executor, boost::asio::execution::context_t>)
        {
            boost::asio::execution_context& context =
                boost::asio::query(executor, boost::asio::execution::context);
            boost::asio::use_service<AsioCalls>(context).Add(*this);
        }
    }

    // A handler must not run inside the function that starts its operation.
    void End(bool starting)
    {
        const std::unique_ptr<AsioCall> self(this);
        auto executor = boost::asio::get_associated_executor(handler_);
        auto run = [handler = std::move(handler_), result = std::move(call_.Ended())]() mutable
        { std::move(handler)(std::move(result)); };
        // asio's stand-in for no executor would run the handler in a thread of asio's own.
        if constexpr (std::is_same_v<decltype(executor), boost::asio::system_executor>)
        {
            run();
        }
        else if (starting)
        {
            boost::asio::post(executor, std::move(run));
        }
        else
        {
            boost::asio::dispatch(executor, std::move(run));
        }
    }

    Handler handler_;
    AsyncCall<T> call_;
};

} // namespace detail

/**
 * Sends @p call and gives its `Result<T>` to a completion token: `use_awaitable`, `use_future` of a
 * thread that does not dispatch, a handler. The handler runs by its own executor, on the thread
 * that dispatches the connection where it has none. A context that is destroyed destroys its
 * handlers, as asio does, and cancels their calls; that on the thread of the connection, too.
 */
template <class T, class Token>
auto Await(AsyncCall<T> call, Token&& token)
{
    return boost::asio::async_initiate<Token, void(Result<T>)>(
        []<class Handler>(Handler&& handler, AsyncCall<T> started)
        {
            detail::AsioCall<T, std::decay_t<Handler>>::Begin(std::forward<Handler>(handler),
                                                              std::move(started));
        },
        token, std::move(call));
}

} // namespace bmcbus
