#pragma once

/**
 * @file
 * Any callable, owned.
 */

#include <concepts>
#include <memory>
#include <type_traits>
#include <utility>

namespace bmcbus::live
{

/**
 * Owns a callable that takes @p A, also one that can only be moved; empty without one.
 *
 * What @p A refers to is given as it is; the callable's result is ignored.
 */
template <class... A>
class Function
{
  public:
    Function() = default;
    Function(std::nullptr_t) {} // NOLINT(google-explicit-constructor)

    template <class Callable>
    requires(!std::same_as<std::remove_cvref_t<Callable>, Function> &&
             std::invocable<std::remove_cvref_t<Callable>&, A...>) Function(Callable&& callable) :
        // NOLINT(google-explicit-constructor)
        held_(new std::remove_cvref_t<Callable>(std::forward<Callable>(callable)),
              [](void* held) { delete static_cast<std::remove_cvref_t<Callable>*>(held); }),
        call_(
            [](void* held, A... arguments)
            {
                static_cast<void>((*static_cast<std::remove_cvref_t<Callable>*>(held))(
                    std::forward<A>(arguments)...));
            })
    {
    }

    explicit operator bool() const { return held_ != nullptr; }

    void operator()(A... arguments) const { call_(held_.get(), std::forward<A>(arguments)...); }

  private:
    std::unique_ptr<void, void (*)(void*)> held_{nullptr, nullptr};
    void (*call_)(void* held, A... arguments) = nullptr;
};

} // namespace bmcbus::live
