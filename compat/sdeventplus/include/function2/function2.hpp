#pragma once

/**
 * @file
 * A move-only `std::function`.
 *
 * Stand-in for the library of this name, with the part of its interface that event sources use.
 */

#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#pragma GCC visibility push(default)

namespace fu2
{

template <typename Signature>
class unique_function;

/** Callables that may stand for nothing. */
template <typename T>
struct can_be_empty : std::bool_constant<std::is_pointer_v<T> || std::is_member_pointer_v<T>>
{
};
template <typename Signature>
struct can_be_empty<std::function<Signature>> : std::true_type
{
};

/** Holds anything that can be called with the arguments and moved. */
template <typename Result, typename... Arguments>
class unique_function<Result(Arguments...)>
{
  public:
    unique_function() noexcept = default;

    unique_function(std::nullptr_t) noexcept {}

    /** Takes @p target over. Empty when it is a null pointer or an empty function. */
    template <typename Target>
    requires(!std::is_same_v<std::remove_cvref_t<Target>, unique_function> &&
             std::is_invocable_r_v<Result, std::decay_t<Target>&, Arguments...>)
        unique_function(Target&& target)
    {
        using Stored = std::decay_t<Target>;
        Stored stored(std::forward<Target>(target));
        if constexpr (can_be_empty<Stored>::value)
        {
            if (stored == nullptr)
            {
                return;
            }
        }
        held = std::make_unique<model<Stored>>(std::move(stored));
    }

    explicit operator bool() const noexcept { return held != nullptr; }

    /** @throws std::bad_function_call when empty */
    Result operator()(Arguments... arguments)
    {
        if (!held)
        {
            throw std::bad_function_call();
        }
        return held->call(std::forward<Arguments>(arguments)...);
    }

  private:
    struct base
    {
        virtual ~base() = default;
        virtual Result call(Arguments... arguments) = 0;
    };

    template <typename Stored>
    struct model final : base
    {
        explicit model(Stored&& from) : target(std::move(from)) {}

        Result call(Arguments... arguments) override
        {
            return static_cast<Result>(std::invoke(target, std::forward<Arguments>(arguments)...));
        }

        Stored target;
    };

    std::unique_ptr<base> held;
};

} // namespace fu2

#pragma GCC visibility pop
