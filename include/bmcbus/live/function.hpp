#pragma once

/**
 * @file
 * Any callable, owned.
 */

#include <concepts>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace bmcbus::live
{

/**
 * Owns a callable that takes @p A, also one that can only be moved; empty without one.
 *
 * What @p A refers to is given as it is; the callable's result is ignored. A callable that captures
 * a pointer or less takes no memory of its own.
 */
template <class... A>
class Function
{
  public:
    // Not defaulted: g++ 12 fails at initialisers of members that need it.
    Function() noexcept {}               // NOLINT(modernize-use-equals-default)
    Function(std::nullptr_t) noexcept {} // NOLINT(google-explicit-constructor)

    template <class Callable>
    requires(!std::same_as<std::remove_cvref_t<Callable>, Function> &&
             std::invocable<std::remove_cvref_t<Callable>&, A...>)
        Function(Callable&& callable) // NOLINT(google-explicit-constructor)
    {
        using Held = std::remove_cvref_t<Callable>;
        if constexpr (std::is_assignable_v<Held&, std::nullptr_t> &&
                      std::is_constructible_v<bool, const Held&>)
        {
            if (!static_cast<bool>(callable))
            {
                return; // a pointer or a std::function that holds none
            }
        }
        if constexpr (isSmall<Held>)
        {
            ::new (&held_) Held(std::forward<Callable>(callable));
        }
        else
        {
            // cppcheck-suppress noCopyConstructor ; it overlooks that there is none
            held_ = new Held(std::forward<Callable>(callable));
        }
        kind_ = &kindOf<Held>;
    }

    Function(const Function&) = delete;
    Function& operator=(const Function&) = delete;
    Function(Function&& other) noexcept :
        held_(other.held_), kind_(std::exchange(other.kind_, nullptr))
    {
    }
    Function& operator=(Function&& other) noexcept
    {
        std::swap(held_, other.held_);
        std::swap(kind_, other.kind_);
        return *this;
    }
    ~Function()
    {
        if (kind_ != nullptr && kind_->drop != nullptr)
        {
            kind_->drop(held_);
        }
    }

    explicit operator bool() const { return kind_ != nullptr; }

    void operator()(A... arguments) const
    {
        kind_->call(const_cast<void**>(&held_), std::forward<A>(arguments)...);
    }

  private:
    struct Kind
    {
        void (*call)(void** held, A... arguments);
        void (*drop)(void* held); // null: nothing to do
    };

    template <class Held>
    static constexpr bool
        isSmall = sizeof(Held) <= sizeof(void*) &&
                  alignof(Held) <= alignof(void*) && std::is_trivially_copyable_v<Held>;

    template <class Held>
    static void Call(void** held, A... arguments)
    {
        // cppcheck-suppress legacyUninitvar ; it takes the template's arguments for comparisons
        void* const at = isSmall<Held> ? static_cast<void*>(held) : *held;
        static_cast<void>((*std::launder(static_cast<Held*>(at)))(std::forward<A>(arguments)...));
    }
    template <class Held>
    static void Drop(void* held)
    {
        delete static_cast<Held*>(held);
    }
    template <class Held>
    static constexpr Kind kindOf = {Call<Held>, isSmall<Held> ? nullptr : Drop<Held>};

    void* held_ = nullptr; // the callable, or where it is
    const Kind* kind_ = nullptr;
};

} // namespace bmcbus::live
