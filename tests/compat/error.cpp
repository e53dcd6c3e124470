// What a failed bus call says.

#include "thrower.hpp"

#include <bmcbus/sdbusplus.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace
{

using bmcbus::Error;

TEST(SdBusError, MakesNameAndTextFromANumberOfEitherSign)
{
    struct
    {
        int number;
        const char* name;
    } const cases[] = {
        {EINVAL, "org.freedesktop.DBus.Error.InvalidArgs"},
        {ENOENT, "org.freedesktop.DBus.Error.FileNotFound"},
        {ENXIO, "System.Error.ENXIO"},
    };
    for (const auto& c : cases)
    {
        for (const int number : {c.number, -c.number})
        {
            const Error error(number, "call");
            EXPECT_STREQ(error.name(), c.name);
            EXPECT_STREQ(error.description(), std::strerror(c.number));
            EXPECT_EQ(error.get_errno(), c.number);
            EXPECT_EQ(error.what(),
                      std::string("call: ") + c.name + ": " + std::strerror(c.number));
        }
    }
    EXPECT_STREQ(Error(4000, "call").name(), "org.freedesktop.DBus.Error.Failed");
}

TEST(SdBusError, RefusesToBeMadeFromNoError)
{
    try
    {
        const Error error(0, "call");
        FAIL() << error.what();
    }
    catch (const std::runtime_error& e)
    {
        EXPECT_STREQ(e.what(), "Failed to create SdBusError");
    }
}

TEST(SdBusError, TakesAnErrorOver)
{
    sd_bus_error raw{};
    sd_bus_error_set(&raw, "com.example.Error.Foo", "text");
    const char* const name = raw.name;
    const Error error(&raw, "sd_bus_call");
    EXPECT_EQ(raw.name, nullptr);
    EXPECT_EQ(raw.message, nullptr);
    EXPECT_EQ(error.name(), name) << "copied instead of taken over";
    EXPECT_STREQ(error.what(), "sd_bus_call: com.example.Error.Foo: text");
    EXPECT_EQ(error.get_errno(), EIO);
}

TEST(SdBusError, SaysWhatThereIs)
{
    sd_bus_error nothing{};
    const Error empty(&nothing, "call");
    EXPECT_STREQ(empty.what(), "call");
    EXPECT_EQ(empty.name(), nullptr);
    EXPECT_EQ(empty.description(), nullptr);

    sd_bus_error nameOnly{};
    sd_bus_error_set(&nameOnly, "com.example.Error.Foo", nullptr);
    EXPECT_STREQ(Error(&nameOnly, "call").what(), "call: com.example.Error.Foo");
}

TEST(SdBusError, Moves)
{
    static_assert(!std::is_copy_constructible_v<Error> && !std::is_copy_assignable_v<Error>);
    static_assert(std::is_base_of_v<std::exception, Error>);
    static_assert(!std::is_base_of_v<std::runtime_error, Error>);
    Error from(EINVAL, "first");
    Error to(std::move(from));
    EXPECT_EQ(to.get_errno(), EINVAL);
    to = Error(ENOENT, "second");
    EXPECT_EQ(to.get_errno(), ENOENT);
    EXPECT_EQ(std::string(to.what()).rfind("second: ", 0), 0U);
}

TEST(SdBusError, IsCaughtFromAnotherSharedObject)
{
    try
    {
        ThrowBusError();
    }
    catch (const Error& e)
    {
        EXPECT_EQ(e.get_errno(), EINVAL);
        EXPECT_STREQ(e.what(), "there: org.freedesktop.DBus.Error.InvalidArgs: Invalid argument");
    }
    EXPECT_THROW(ThrowBusError(), std::exception);
}

} // namespace
