#pragma once

/**
 * @file
 * An error on its way into a `Result`, and out of one as an exception.
 *
 * Values like others: one is used by one thread at a time, different ones by any.
 */

#include <exception>
#include <type_traits>
#include <utility>

namespace bmcbus
{

/** An error on its way into a `Result`. */
template <class E>
class Unexpected
{
  public:
    /** Takes the error. */
    template <class Error = E>
    requires(!std::is_same_v<std::remove_cvref_t<Error>, Unexpected> &&
             !std::is_same_v<std::remove_cvref_t<Error>, std::in_place_t> &&
             std::is_constructible_v<E, Error>) constexpr explicit Unexpected(Error&& error) :
        error_(std::forward<Error>(error))
    {
    }
    /** Makes the error of these arguments. */
    template <class... Args>
    requires std::is_constructible_v<E, Args...>
    constexpr explicit Unexpected(std::in_place_t, Args&&... args) :
        error_(std::forward<Args>(args)...)
    {
    }

    /** The error. @{ */
    constexpr const E& error() const& noexcept { return error_; }
    constexpr E& error() & noexcept { return error_; }
    constexpr E&& error() && noexcept { return std::move(error_); }
    constexpr const E&& error() const&& noexcept { return std::move(error_); }
    /** @} */

    /** Exchanges the two. @{ */
    constexpr void swap(Unexpected& other) noexcept(std::is_nothrow_swappable_v<E>)
    {
        using std::swap;
        swap(error_, other.error_);
    }
    friend constexpr void swap(Unexpected& left,
                               Unexpected& right) noexcept(noexcept(left.swap(right)))
    {
        left.swap(right);
    }
    /** @} */

    /** By the errors. */
    template <class Other>
    friend constexpr bool operator==(const Unexpected& left, const Unexpected<Other>& right)
    {
        return left.error() == right.error();
    }

  private:
    E error_;
};

/** The error's own type. */
template <class E>
Unexpected(E) -> Unexpected<E>;

/** Constructs the error of a `Result` in place. */
struct Unexpect
{
    explicit Unexpect() = default;
};
/** The one value of its type. */
inline constexpr Unexpect unexpect{};

/** Thrown by `Result::value()` where there is an error; carries it. */
template <class E>
class BadResultAccess : public std::exception
{
  public:
    /** Takes the error. */
    explicit BadResultAccess(E error) : error_(std::move(error)) {}

    /** The error's message, where it has one. */
    const char* what() const noexcept override
    {
        if constexpr (requires { error_.message.c_str(); })
        {
            return error_.message.c_str();
        }
        return "the result is an error";
    }
    /** The error. @{ */
    const E& error() const& noexcept { return error_; }
    E& error() & noexcept { return error_; }
    E&& error() && noexcept { return std::move(error_); }
    /** @} */

  private:
    E error_;
};

} // namespace bmcbus
