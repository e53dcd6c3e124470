#pragma once

// The storage and life of a value or an error, below `Result`, which adds what one can ask.

#include <bmcbus/result/unexpected.hpp>

#include <optional> // for std::construct_at and its like: <memory> takes long to compile
#include <type_traits>
#include <utility>

namespace bmcbus::detail
{

// What a Result<void> holds in place of a value.
struct Nothing
{
    friend constexpr bool operator==(Nothing, Nothing) { return true; }
};

template <class T, class E>
class ResultStorage
{
    static_assert(std::is_nothrow_move_constructible_v<E>, "errors move without throwing");

  public:
    constexpr ResultStorage() noexcept(
        std::is_nothrow_default_constructible_v<T>) requires std::is_default_constructible_v<T>
        : value_(), has_(true)
    {
    }
    template <class... Args>
    constexpr explicit ResultStorage(std::in_place_t, Args&&... args) :
        value_(std::forward<Args>(args)...), has_(true)
    {
    }
    template <class... Args>
    constexpr explicit ResultStorage(Unexpect, Args&&... args) :
        error_(std::forward<Args>(args)...), has_(false)
    {
    }
    constexpr ResultStorage(const ResultStorage& other) requires std::is_copy_constructible_v<T> &&
        std::is_copy_constructible_v<E> : has_(other.has_)
    {
        Construct(other);
    }
    constexpr ResultStorage(ResultStorage&& other) noexcept(
        std::is_nothrow_move_constructible_v<T>) requires std::is_move_constructible_v<T>
        : has_(other.has_)
    {
        Construct(std::move(other));
    }
    constexpr ResultStorage&
    operator=(const ResultStorage& other) requires std::is_copy_constructible_v<T> &&
        std::is_copy_assignable_v<T> && std::is_copy_assignable_v<E>
    {
        Assign(other);
        return *this;
    }
    constexpr ResultStorage& operator=(ResultStorage&& other) noexcept(
        std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_assignable_v<T>) requires
        std::is_move_constructible_v<T> && std::is_move_assignable_v<T>
    {
        // cppcheck-suppress throwInNoexceptFunction ; it does not see the condition above
        Assign(std::move(other));
        return *this;
    }
    constexpr ~ResultStorage() { Destroy(); }

    constexpr bool Has() const noexcept { return has_; }
    constexpr T& Value() noexcept { return value_; }
    constexpr const T& Value() const noexcept { return value_; }
    constexpr E& Error() noexcept { return error_; }
    constexpr const E& Error() const noexcept { return error_; }

    template <class Arg>
    constexpr void SetValue(Arg&& arg)
    {
        if (has_)
        {
            value_ = std::forward<Arg>(arg);
            return;
        }
        T next(std::forward<Arg>(arg)); // what may throw comes before the error is given up
        E kept(std::move(error_));
        std::destroy_at(std::addressof(error_));
        Replace(value_, std::move(next), error_, kept);
        has_ = true;
    }
    template <class Arg>
    constexpr void SetError(Arg&& arg)
    {
        if (!has_)
        {
            error_ = std::forward<Arg>(arg);
            return;
        }
        E next(std::forward<Arg>(arg));
        std::destroy_at(std::addressof(value_));
        std::construct_at(std::addressof(error_), std::move(next));
        has_ = false;
    }

  private:
    template <class Other>
    constexpr void Construct(Other&& other)
    {
        if (has_)
        {
            std::construct_at(std::addressof(value_), std::forward<Other>(other).value_);
        }
        else
        {
            std::construct_at(std::addressof(error_), std::forward<Other>(other).error_);
        }
    }
    template <class Other>
    constexpr void Assign(Other&& other)
    {
        if (other.has_)
        {
            SetValue(std::forward<Other>(other).value_);
        }
        else
        {
            SetError(std::forward<Other>(other).error_);
        }
    }
    // Puts `next` where nothing is now; the error comes back when that throws.
    static constexpr void Replace(T& place, T&& next, E& error, E& kept)
    {
        if constexpr (std::is_nothrow_move_constructible_v<T>)
        {
            std::construct_at(std::addressof(place), std::move(next));
        }
        else
        {
            try
            {
                std::construct_at(std::addressof(place), std::move(next));
            }
            catch (...)
            {
                std::construct_at(std::addressof(error), std::move(kept));
                throw;
            }
        }
    }
    constexpr void Destroy()
    {
        if (has_)
        {
            std::destroy_at(std::addressof(value_));
        }
        else
        {
            std::destroy_at(std::addressof(error_));
        }
    }

    union
    {
        T value_;
        E error_;
    };
    bool has_;
};

} // namespace bmcbus::detail
