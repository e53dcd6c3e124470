#pragma once

// A private bus with an object mapper whose answers the test chooses, and the thread's default
// connection held, as a service does.

#include "log_recorder.hpp"

#include <bmcbus/testing.hpp>
#include <object_mapper.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <map>
#include <string>
#include <vector>

using bmcbus::testing::Dispatch;
using bmcbus::testing::FakeMapper;
using bmcbus::testing::PrivateBus;
using bmcbus::testing::Value;

using Names = std::list<std::string>;
using Services = std::map<std::string, Names>;
using Tree = std::map<std::string, Services>;

// One expected line of the library, as test::Describe prints it.
inline std::string Line(int level, const std::string& function, const std::string& text)
{
    return std::to_string(level) + " 300 object_mapper.cpp " + function + ": " + text + "\n";
}

class MapperTest : public testing::Test
{
  protected:
    MapperTest()
    {
        EXPECT_GE(sd_bus_default_system(&connection), 0);
        test::ClearLog();
    }

    ~MapperTest() override { sd_bus_flush_close_unref(connection); }

    // Everything that was logged, in order.
    static std::string Logged() { return test::Describe(test::Log()); }

    PrivateBus bus;
    FakeMapper mapper;
    sd_bus* connection = nullptr;
};
