#pragma once

// The operations with a result, with the types forgotten. There is one instance for a class and its
// types.

#include "every_member.hpp"

#include <bmcbus/task.hpp>
#include <bmcbus/testing/value.hpp>

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace every_member
{

using Outcome = bmcbus::Result<Values>;

// A read, a write or a method, by its three forms.
struct Operation
{
    Operation(const char* called, const char* read, std::vector<std::string> takes,
              std::vector<std::string> gives) :
        member(called), property(read), ins(std::move(takes)), outs(std::move(gives))
    {
    }
    virtual ~Operation() = default;
    virtual Outcome Try(void* object, const Values& in) const = 0;
    virtual bmcbus::Call Start(void* object, const Values& in,
                               std::function<void(const Outcome&)> then) const = 0;
    virtual bmcbus::Task<> Wait(void* object, const Values& in,
                                std::optional<Outcome>& out) const = 0;

    const char* const member;   // as it is called on the bus
    const char* const property; // null for a method and for all at once
    const std::vector<std::string> ins;
    const std::vector<std::string> outs;
};

template <class T>
bmcbus::Task<> Await(bmcbus::AsyncCall<T> call, std::function<void(const bmcbus::Result<T>&)> then)
{
    then(co_await std::move(call));
}

template <class Class, class T, class... In>
struct Forms : Operation
{
    using Result = bmcbus::Result<T>;
    using Completion = std::function<void(Result)>;
    using Options = const bmcbus::CallOptions&;
    using Split = std::function<Values(const std::conditional_t<std::is_void_v<T>, int, T>&)>;

    Forms(const char* called, const char* read, Result (Class::*a)(const In&..., Options),
          bmcbus::AsyncCall<T> (Class::*b)(const In&..., Options),
          bmcbus::Call (Class::*c)(const In&..., Completion&&, Options)) :
        Operation(called, read, {kit::SignatureOf<In>()...}, Signature()),
        blocking(a),
        awaited(b),
        completed(c)
    {
        if constexpr (!std::is_void_v<T>)
        {
            split = [](const T& value) { return Values{kit::Value(value)}; };
        }
    }
    // Where a struct holds the results.
    Forms(const char* called, const char* read, Result (Class::*a)(const In&..., Options),
          bmcbus::AsyncCall<T> (Class::*b)(const In&..., Options),
          bmcbus::Call (Class::*c)(const In&..., Completion&&, Options),
          std::vector<std::string> gives, Split taken) :
        Operation(called, read, {kit::SignatureOf<In>()...}, std::move(gives)),
        blocking(a),
        awaited(b),
        completed(c),
        split(std::move(taken))
    {
    }

    Outcome Try(void* object, const Values& in) const override
    {
        return Forget(
            With(in, [&](const In&... given) { return (At(object).*blocking)(given..., {}); }));
    }
    bmcbus::Call Start(void* object, const Values& in,
                       std::function<void(const Outcome&)> then) const override
    {
        return With(in,
                    [&](const In&... given)
                    {
                        return (At(object).*completed)(
                            given..., [this, then](const Result& result) { then(Forget(result)); },
                            {});
                    });
    }
    bmcbus::Task<> Wait(void* object, const Values& in, std::optional<Outcome>& out) const override
    {
        return Await<T>(
            With(in, [&](const In&... given) { return (At(object).*awaited)(given..., {}); }),
            [this, &out](const Result& result) { out = Forget(result); });
    }

  private:
    static Class& At(void* object) { return *static_cast<Class*>(object); }

    static std::vector<std::string> Signature()
    {
        if constexpr (std::is_void_v<T> || !requires { kit::SignatureOf<T>(); })
        {
            return {};
        }
        else
        {
            return {kit::SignatureOf<T>()};
        }
    }
    template <class Do>
    static auto With(const Values& in, const Do& act)
    {
        return [&]<size_t... index>(std::index_sequence<index...>)
        {
            return act(in.at(index).template Get<In>()...);
        }
        (std::index_sequence_for<In...>());
    }
    Outcome Forget(const Result& result) const
    {
        if (!result)
        {
            return bmcbus::Unexpected(result.error());
        }
        if constexpr (std::is_void_v<T>)
        {
            return Values();
        }
        else
        {
            return split(*result);
        }
    }

    Result (Class::*blocking)(const In&..., Options);
    bmcbus::AsyncCall<T> (Class::*awaited)(const In&..., Options);
    bmcbus::Call (Class::*completed)(const In&..., Completion&&, Options);
    Split split;
};

} // namespace every_member
