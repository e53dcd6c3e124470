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
#include <boost/asio/post.hpp>
#include <boost/asio/system_executor.hpp>

#include <memory>
#include <type_traits>

namespace bmcbus
{

namespace detail
{

/** A call whose result goes to a handler of asio's, by the handler's executor. Frees itself. */
template <class T, class Handler>
class AsioCall
{
  public:
    static void Begin(Handler handler, AsyncCall<T> call)
    {
        auto* self = new AsioCall(std::move(handler), std::move(call));
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
 * that dispatches the connection where it has none.
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
