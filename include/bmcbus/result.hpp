#pragma once

/**
 * @file
 * A value, or why there is none.
 *
 * `Result<T>` has the interface of `std::expected<T, CallError>`, which C++20 does not have. It is
 * the same type in C++20 and C++23, so sources of both may share it.
 *
 * A value like others: one is used by one thread at a time, different ones by any.
 */

#include <bmcbus/call_error.hpp>
#include <bmcbus/result/storage.hpp>
#include <bmcbus/result/unexpected.hpp>

#include <initializer_list>
#include <type_traits>
#include <utility>

namespace bmcbus
{

template <class T, class E = CallError>
class Result;

namespace detail
{

template <class T>
inline constexpr bool isResult = false;
template <class T, class E>
inline constexpr bool isResult<Result<T, E>> = true;
template <class T>
inline constexpr bool isUnexpected = false;
template <class E>
inline constexpr bool isUnexpected<Unexpected<E>> = true;

// std::invoke for one argument at most; <functional> takes long to compile.
template <class F, class... Arg>
constexpr decltype(auto) Invoke(F&& function, Arg&&... argument)
{
    using Plain = std::remove_cvref_t<F>;
    if constexpr (std::is_member_function_pointer_v<Plain>)
    {
        return ((std::forward<Arg>(argument).*function)(), ...);
    }
    else if constexpr (std::is_member_object_pointer_v<Plain>)
    {
        return ((std::forward<Arg>(argument).*function), ...);
    }
    else
    {
        return std::forward<F>(function)(std::forward<Arg>(argument)...);
    }
}

} // namespace detail

/**
 * A value of type @p T, or an error.
 *
 * Looking at the value of an error by `*` or `->`, or at the error of a value, is undefined, as for
 * `std::expected`; `value()` throws `BadResultAccess` instead. `T` may be `void`.
 *
 * @code
 * bmcbus::Result<int32_t> status = fans.Try_updateFanPWMData("Fan1", 70);
 * if (!status) report(status.error().name, status.error().message);
 * else use(*status);
 * @endcode
 */
template <class T, class E>
class [[nodiscard]] Result
{
    using Stored = std::conditional_t<std::is_void_v<T>, detail::Nothing, T>;
    using Storage = detail::ResultStorage<Stored, E>;
    static constexpr bool empty = std::is_void_v<T>;

    // Whether a result of U, const for one that stays, and of an error of G can become one of this.
    template <class U>
    using Given = std::conditional_t<std::is_const_v<U>, std::add_lvalue_reference_t<U>, U>;
    template <class U, class G>
    static constexpr bool
        takes = std::is_void_v<U> == empty &&
                (empty || std::is_constructible_v<Stored, Given<U>>)&&std::is_constructible_v<E, G>;
    template <class U, class G>
    static constexpr bool
        converts = (empty || std::is_convertible_v<Given<U>, Stored>)&&std::is_convertible_v<G, E>;

  public:
    /** As std::expected names its types. @{ */
    using value_type = T;
    using error_type = E;
    using unexpected_type = Unexpected<E>;
    template <class U>
    using rebind = Result<U, E>;
    /** @} */

    constexpr Result() = default;

    /** A value. */
    template <class U = Stored>
    requires(
        !empty && !detail::isResult<std::remove_cvref_t<U>> &&
        !detail::isUnexpected<std::remove_cvref_t<U>> &&
        !std::is_same_v<std::remove_cvref_t<U>, std::in_place_t> &&
        std::is_constructible_v<Stored, U>) constexpr explicit(!std::is_convertible_v<U, Stored>)
        Result(U&& value) :
        storage_(std::in_place, std::forward<U>(value))
    {
    }
    /** An error. */
    template <class G>
    requires std::is_constructible_v<E, const G&>
    constexpr explicit(!std::is_convertible_v<const G&, E>) Result(const Unexpected<G>& error) :
        storage_(unexpect, error.error())
    {
    }
    /** An error, moved. */
    template <class G>
    requires std::is_constructible_v<E, G>
    constexpr explicit(!std::is_convertible_v<G, E>) Result(Unexpected<G>&& error) :
        storage_(unexpect, std::move(error).error())
    {
    }
    /** A value, made of these arguments. */
    template <class... Args>
    requires std::is_constructible_v<Stored, Args...>
    constexpr explicit Result(std::in_place_t, Args&&... args) :
        storage_(std::in_place, std::forward<Args>(args)...)
    {
    }
    /** A value, made of this list and these arguments. */
    template <class U, class... Args>
    constexpr explicit Result(std::in_place_t, std::initializer_list<U> list, Args&&... args) :
        storage_(std::in_place, list, std::forward<Args>(args)...)
    {
    }
    /** An error, made of these arguments. */
    template <class... Args>
    requires std::is_constructible_v<E, Args...>
    constexpr explicit Result(Unexpect, Args&&... args) :
        storage_(unexpect, std::forward<Args>(args)...)
    {
    }
    /// @cond Doxygen takes it for something else
    // From a result of other, convertible types.
    template <class U, class G>
    requires(takes<const U, const G&>) constexpr explicit(!converts<const U, const G&>)
        Result(const Result<U, G>& other) :
        storage_(From(other))
    {
    }
    template <class U, class G>
    requires(takes<U, G>) constexpr explicit(!converts<U, G>) Result(Result<U, G>&& other) :
        storage_(From(std::move(other)))
    {
    }
    /// @endcond

    /** Takes a value. */
    template <class U = Stored>
    requires(!empty && !detail::isResult<std::remove_cvref_t<U>> &&
             !detail::isUnexpected<std::remove_cvref_t<U>> &&
             std::is_constructible_v<Stored, U>) constexpr Result&
    operator=(U&& value)
    {
        storage_.SetValue(std::forward<U>(value));
        return *this;
    }
    /** Takes an error. */
    template <class G>
    requires std::is_constructible_v<E, const G&>
    constexpr Result& operator=(const Unexpected<G>& error)
    {
        storage_.SetError(error.error());
        return *this;
    }
    /** Takes an error, moved. */
    template <class G>
    requires std::is_constructible_v<E, G>
    constexpr Result& operator=(Unexpected<G>&& error)
    {
        storage_.SetError(std::move(error).error());
        return *this;
    }
    /** Makes a value of these arguments; gives it. */
    template <class... Args>
    constexpr decltype(auto) emplace(Args&&... args)
    {
        storage_.SetValue(Stored(std::forward<Args>(args)...));
        return **this;
    }
    /** Makes a value of this list and these arguments; gives it. */
    template <class U, class... Args>
    constexpr decltype(auto) emplace(std::initializer_list<U> list, Args&&... args)
    {
        storage_.SetValue(Stored(list, std::forward<Args>(args)...));
        return **this;
    }
    /** Exchanges the two. @{ */
    constexpr void swap(Result& other) noexcept(std::is_nothrow_swappable_v<Storage>)
    {
        std::swap(storage_, other.storage_);
    }
    friend constexpr void swap(Result& left, Result& right) noexcept(noexcept(left.swap(right)))
    {
        left.swap(right);
    }
    /** @} */

    /** Whether there is a value. */
    constexpr bool has_value() const noexcept { return storage_.Has(); }
    /** Whether there is a value. */
    constexpr explicit operator bool() const noexcept { return storage_.Has(); }

    /** The value, which must be there. @{ */
    constexpr std::add_lvalue_reference_t<T> operator*() & noexcept
    {
        return Get<std::add_lvalue_reference_t<T>>(storage_);
    }
    constexpr std::add_lvalue_reference_t<const T> operator*() const& noexcept
    {
        return Get<std::add_lvalue_reference_t<const T>>(storage_);
    }
    constexpr std::add_rvalue_reference_t<T> operator*() && noexcept
    {
        return Get<std::add_rvalue_reference_t<T>>(storage_);
    }
    constexpr std::add_rvalue_reference_t<const T> operator*() const&& noexcept
    {
        return Get<std::add_rvalue_reference_t<const T>>(storage_);
    }
    constexpr auto* operator->() noexcept requires(!empty)
    {
        return std::addressof(storage_.Value());
    }
    constexpr const auto* operator->() const noexcept requires(!empty)
    {
        return std::addressof(storage_.Value());
    }
    /** @} */

    /** The value; throws `BadResultAccess` where there is none. @{ */
    constexpr std::add_lvalue_reference_t<T> value() & { return *Checked(*this); }
    constexpr std::add_lvalue_reference_t<const T> value() const& { return *Checked(*this); }
    constexpr std::add_rvalue_reference_t<T> value() && { return *Checked(std::move(*this)); }
    constexpr std::add_rvalue_reference_t<const T> value() const&&
    {
        return *Checked(std::move(*this));
    }
    /** @} */

    /** The error, which must be there. @{ */
    constexpr E& error() & noexcept { return storage_.Error(); }
    constexpr const E& error() const& noexcept { return storage_.Error(); }
    constexpr E&& error() && noexcept { return std::move(storage_.Error()); }
    constexpr const E&& error() const&& noexcept { return std::move(storage_.Error()); }
    /** @} */

    /** The value, or @p other where there is none. @{ */
    template <class U = Stored>
    constexpr Stored value_or(U&& other) const& requires(!empty)
    {
        return has_value() ? **this : static_cast<Stored>(std::forward<U>(other));
    }
    template <class U = Stored>
        constexpr Stored value_or(U&& other) && requires(!empty)
    {
        return has_value() ? std::move(**this) : static_cast<Stored>(std::forward<U>(other));
    }
    /** @} */
    /** The error, or @p other where there is none. @{ */
    template <class G = E>
    constexpr E error_or(G&& other) const&
    {
        return has_value() ? static_cast<E>(std::forward<G>(other)) : error();
    }
    template <class G = E>
    constexpr E error_or(G&& other) &&
    {
        return has_value() ? static_cast<E>(std::forward<G>(other)) : std::move(error());
    }
    /** @} */

    /** @p next of the value, which gives a result; an error stays. @{ */
    template <class F>
    constexpr auto and_then(F&& next) &
    {
        return AndThen(*this, std::forward<F>(next));
    }
    template <class F>
    constexpr auto and_then(F&& next) const&
    {
        return AndThen(*this, std::forward<F>(next));
    }
    template <class F>
    constexpr auto and_then(F&& next) &&
    {
        return AndThen(std::move(*this), std::forward<F>(next));
    }
    template <class F>
    constexpr auto and_then(F&& next) const&&
    {
        return AndThen(std::move(*this), std::forward<F>(next));
    }
    /** @} */
    /** @p next of the error, which gives a result; a value stays. @{ */
    template <class F>
    constexpr auto or_else(F&& next) &
    {
        return OrElse(*this, std::forward<F>(next));
    }
    template <class F>
    constexpr auto or_else(F&& next) const&
    {
        return OrElse(*this, std::forward<F>(next));
    }
    template <class F>
    constexpr auto or_else(F&& next) &&
    {
        return OrElse(std::move(*this), std::forward<F>(next));
    }
    template <class F>
    constexpr auto or_else(F&& next) const&&
    {
        return OrElse(std::move(*this), std::forward<F>(next));
    }
    /** @} */
    /** The value replaced by @p change of it. @{ */
    template <class F>
    constexpr auto transform(F&& change) &
    {
        return Transform(*this, std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform(F&& change) const&
    {
        return Transform(*this, std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform(F&& change) &&
    {
        return Transform(std::move(*this), std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform(F&& change) const&&
    {
        return Transform(std::move(*this), std::forward<F>(change));
    }
    /** @} */
    /** The error replaced by @p change of it. @{ */
    template <class F>
    constexpr auto transform_error(F&& change) &
    {
        return TransformError(*this, std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform_error(F&& change) const&
    {
        return TransformError(*this, std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform_error(F&& change) &&
    {
        return TransformError(std::move(*this), std::forward<F>(change));
    }
    template <class F>
    constexpr auto transform_error(F&& change) const&&
    {
        return TransformError(std::move(*this), std::forward<F>(change));
    }
    /** @} */

    /** Equal values, or equal errors. */
    template <class U, class G>
    friend constexpr bool operator==(const Result& left,
                                     const Result<U, G>& right) requires(empty == std::is_void_v<U>)
    {
        if (left.has_value() != right.has_value())
        {
            return false;
        }
        if (!left.has_value())
        {
            return left.error() == right.error();
        }
        if constexpr (empty)
        {
            return true;
        }
        else
        {
            return *left == *right;
        }
    }
    /** Whether the value is there and equal. */
    template <class U>
    requires(!empty && !detail::isResult<U> && !detail::isUnexpected<U>) friend constexpr bool
    operator==(const Result& left, const U& value)
    {
        return left.has_value() && *left == value;
    }
    /** Whether the error is there and equal. */
    template <class G>
    friend constexpr bool operator==(const Result& left, const Unexpected<G>& error)
    {
        return !left.has_value() && left.error() == error.error();
    }

  private:
    template <class Other>
    static constexpr Storage From(Other&& other)
    {
        if (!other)
        {
            return Storage(unexpect, std::forward<Other>(other).error());
        }
        if constexpr (empty)
        {
            return Storage(std::in_place);
        }
        else
        {
            return Storage(std::in_place, *std::forward<Other>(other));
        }
    }
    template <class Ref, class Held>
    static constexpr Ref Get(Held& held) noexcept
    {
        return static_cast<Ref>(held.Value());
    }
    template <class Self>
    static constexpr Self&& Checked(Self&& self)
    {
        if (!self)
        {
            throw BadResultAccess<E>(std::forward<Self>(self).error());
        }
        return std::forward<Self>(self);
    }
    template <class Self, class F>
    static constexpr decltype(auto) Call(Self&& self, F&& f)
    {
        if constexpr (empty)
        {
            return detail::Invoke(std::forward<F>(f));
        }
        else
        {
            return detail::Invoke(std::forward<F>(f), *std::forward<Self>(self));
        }
    }
    template <class Self, class F>
    static constexpr auto AndThen(Self&& self, F&& next)
    {
        using Next =
            std::remove_cvref_t<decltype(Call(std::forward<Self>(self), std::forward<F>(next)))>;
        return self ? Call(std::forward<Self>(self), std::forward<F>(next))
                    : Next(unexpect, std::forward<Self>(self).error());
    }
    template <class Self, class F>
    static constexpr auto OrElse(Self&& self, F&& next)
    {
        using Next = std::remove_cvref_t<
            std::invoke_result_t<F, decltype(std::forward<Self>(self).error())>>;
        if (!self)
        {
            return detail::Invoke(std::forward<F>(next), std::forward<Self>(self).error());
        }
        if constexpr (empty)
        {
            return Next();
        }
        else
        {
            return Next(std::in_place, *std::forward<Self>(self));
        }
    }
    template <class Self, class F>
    static constexpr auto Transform(Self&& self, F&& change)
    {
        using Changed =
            std::remove_cv_t<decltype(Call(std::forward<Self>(self), std::forward<F>(change)))>;
        if (!self)
        {
            return Result<Changed, E>(unexpect, std::forward<Self>(self).error());
        }
        if constexpr (std::is_void_v<Changed>)
        {
            Call(std::forward<Self>(self), std::forward<F>(change));
            return Result<void, E>();
        }
        else
        {
            return Result<Changed, E>(std::in_place,
                                      Call(std::forward<Self>(self), std::forward<F>(change)));
        }
    }
    template <class Self, class F>
    static constexpr auto TransformError(Self&& self, F&& change)
    {
        using Changed = std::remove_cvref_t<
            std::invoke_result_t<F, decltype(std::forward<Self>(self).error())>>;
        if (!self)
        {
            return Result<T, Changed>(unexpect, detail::Invoke(std::forward<F>(change),
                                                               std::forward<Self>(self).error()));
        }
        if constexpr (empty)
        {
            return Result<T, Changed>();
        }
        else
        {
            return Result<T, Changed>(std::in_place, *std::forward<Self>(self));
        }
    }

    Storage storage_;
};

} // namespace bmcbus
