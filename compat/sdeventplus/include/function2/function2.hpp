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

namespace fu2 __attribute__((visibility("default")))
{

    template <typename Signature>
    class unique_function;

    /** Holds anything that can be called with the arguments and moved. */
    template <typename Result, typename... Arguments>
    class unique_function<Result(Arguments...)>
    {
      public:
        unique_function() noexcept = default;

        unique_function(std::nullptr_t) noexcept
        {
        }

        /** Takes @p target over. Empty when it is a null pointer or an empty function. */
        template <typename Target>
        requires(!std::is_same_v<std::remove_cvref_t<Target>, unique_function> &&
                 std::is_invocable_r_v<Result, std::decay_t<Target>&, Arguments...>)
            unique_function(Target&& target)
        {
            using Stored = std::decay_t<Target>;
            if constexpr (std::is_constructible_v<bool, Stored&> &&
                          !std::is_convertible_v<Stored&, bool>)
            {
                if (!static_cast<bool>(target))
                {
                    return;
                }
            }
            else if constexpr (std::is_pointer_v<Stored> || std::is_member_pointer_v<Stored>)
            {
                if (target == nullptr)
                {
                    return;
                }
            }
            held = std::make_unique<model<Stored>>(std::forward<Target>(target));
        }

        explicit operator bool() const noexcept
        {
            return held != nullptr;
        }

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
        struct concept_of
        {
            virtual ~concept_of() = default;
            virtual Result call(Arguments... arguments) = 0;
        };

        template <typename Stored>
        struct model final : concept_of
        {
            template <typename Target>
            explicit model(Target&& from) : target(std::forward<Target>(from))
            {
            }

            Result call(Arguments... arguments) override
            {
                return static_cast<Result>(
                    std::invoke(target, std::forward<Arguments>(arguments)...));
            }

            Stored target;
        };

        std::unique_ptr<concept_of> held;
    };

} // namespace )
