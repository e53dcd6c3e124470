// Result<T> as std::expected: the same program compiles against either.

#include <bmcbus/result.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace
{

using bmcbus::CallError;
using bmcbus::CallFailure;
using bmcbus::Result;
using bmcbus::Unexpected;

Result<int> Fail(const std::string& name)
{
    return Unexpected(CallError(CallFailure::Remote, name, "text"));
}

TEST(Result, HoldsAValueOrAnError)
{
    const Result<int> seven = 7;
    const Result<int> failed = Fail("com.example.Broken");
    ASSERT_TRUE(seven);
    EXPECT_EQ(*seven, 7);
    EXPECT_EQ(seven.value_or(1), 7);
    ASSERT_FALSE(failed.has_value());
    EXPECT_EQ(failed.error().name, "com.example.Broken");
    EXPECT_EQ(failed.value_or(1), 1);
    EXPECT_EQ(seven.error_or(CallError()), CallError());
    EXPECT_EQ(seven, 7);
    EXPECT_NE(seven, failed);
    EXPECT_EQ(failed, Fail("com.example.Broken"));
    EXPECT_NE(failed, Fail("com.example.Other"));
}

TEST(Result, ThrowsItsErrorWhereAValueIsDemanded)
{
    try
    {
        static_cast<void>(Fail("com.example.Broken").value());
        FAIL();
    }
    catch (const bmcbus::BadResultAccess<CallError>& thrown)
    {
        EXPECT_EQ(thrown.error().name, "com.example.Broken");
        EXPECT_STREQ(thrown.what(), "text");
    }
    Result<void> fine;
    fine.value();
    EXPECT_THROW(Result<void>(Unexpected(CallError())).value(), std::exception);
}

TEST(Result, IsAssignedFromEitherStateToEither)
{
    using Text = std::vector<std::string>;
    const Text words = {"a long word that is kept on the heap", "b"};
    Result<Text> result = words;
    result = Unexpected(CallError(CallFailure::Timeout, "n", "m"));
    EXPECT_EQ(result.error().kind, CallFailure::Timeout);
    result = words;
    EXPECT_EQ(*result, words);
    Result<Text> other = Unexpected(CallError());
    swap(result, other);
    EXPECT_FALSE(result);
    EXPECT_EQ(other->size(), 2);
    result = std::move(other);
    EXPECT_EQ(*result, words);
    result.emplace(Text{"c"});
    EXPECT_EQ(result->front(), "c");
    Result<std::unique_ptr<int>> owner = std::make_unique<int>(3);
    const std::unique_ptr<int> taken = *std::move(owner);
    EXPECT_EQ(*taken, 3);
    static_assert(!std::is_copy_constructible_v<Result<std::unique_ptr<int>>>);
    owner = std::make_unique<int>(4);
    const Result<std::shared_ptr<const int>> shared = std::move(owner);
    EXPECT_EQ(**shared, 4);
    EXPECT_EQ(Result<std::vector<int>>(std::in_place, {1, 2})->size(), 2U);
}

// The rest of what std::expected takes and refuses.
TEST(Result, TakesWhatStdExpectedTakes)
{
    using Plain = Result<int>;
    const Plain seven = 7;
    static_assert(std::is_same_v<decltype(std::move(seven).value()), const int&&>);
    static_assert(std::is_same_v<decltype(std::move(seven).error()), const CallError&&>);
    static_assert(!std::is_assignable_v<Plain&, Unexpected<std::vector<int>>>);
    static_assert(!std::is_constructible_v<Plain, std::in_place_t, std::string>);
    static_assert(noexcept(std::declval<Plain&>().swap(std::declval<Plain&>())));
    EXPECT_EQ(std::move(seven).transform([](const int&& n) { return n + 1; }), 8);
    Plain failed = Fail("a");
    EXPECT_EQ(failed.or_else([](CallError& error) -> Plain { return Unexpected(error); }), failed);
    Result<int, std::unique_ptr<int>> owner(bmcbus::unexpect, new int(3));
    EXPECT_THROW(static_cast<void>(std::move(owner).value()), std::exception);
    EXPECT_EQ(owner.error(), nullptr);
    Unexpected<std::string> text(std::in_place, size_t{3}, 'x');
    Unexpected<std::string> other("y");
    swap(text, other);
    EXPECT_EQ(other.error(), "xxx");
    EXPECT_EQ(Result<std::vector<int>>().emplace({1, 2}).size(), 2U);
}

struct ThrowsWhenMoved
{
    explicit ThrowsWhenMoved(int) {}
    ThrowsWhenMoved(const ThrowsWhenMoved&) {}
    ThrowsWhenMoved(ThrowsWhenMoved&&) { throw 1; }
    ThrowsWhenMoved& operator=(const ThrowsWhenMoved&) = default;
};

TEST(Result, KeepsItsErrorWhenTheValueThatFollowsThrows)
{
    Result<ThrowsWhenMoved> result = Unexpected(CallError(CallFailure::Remote, "kept", ""));
    EXPECT_THROW(result = ThrowsWhenMoved(1), int);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().name, "kept");
}

TEST(Result, IsComposed)
{
    const auto half = [](int n) -> Result<int>
    { return n % 2 == 0 ? Result<int>(n / 2) : Fail("odd"); };
    const auto text = [](int n) { return std::to_string(n); };
    EXPECT_EQ(Result<int>(8).and_then(half).and_then(half).transform(text), std::string("2"));
    EXPECT_EQ(Result<int>(6).and_then(half).and_then(half).error().name, "odd");
    EXPECT_EQ(Fail("x").or_else([](const CallError&) { return Result<int>(5); }), 5);
    EXPECT_EQ(Fail("x").transform_error([](CallError e) { return e.name + "y"; }).error(), "xy");
    int seen = 0;
    EXPECT_TRUE(Result<int>(4).transform([&](int n) { seen = n; }).has_value());
    EXPECT_EQ(seen, 4);
    EXPECT_EQ(Result<void>().and_then([] { return Result<int>(1); }), 1);
}

} // namespace
