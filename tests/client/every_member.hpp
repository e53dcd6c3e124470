#pragma once

// The checks that every_member.cpp.j2 applies to every generated member. One instance per type.

#include "log_recorder.hpp"
#include "no_bus.hpp"
#include "sample.hpp"

#include <bmcbus/testing/fake_service.hpp>
#include <bmcbus/testing/private_bus.hpp>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <variant>

namespace every_member
{

namespace kit = bmcbus::testing;

inline const std::string service = "com.example.Owner";
inline const std::string path = "/com/example/object";

// How many lines of an error's level were written by `function` with `text`.
inline size_t Errors(const std::string& function, const std::string& text)
{
    return test::CountLog(2, 127, function, text);
}

// What every test starts with: a bus, an object with the interface, and a connection that stays.
struct Setting
{
    explicit Setting(const std::string& interface) : object(service, path, {interface})
    {
        object.Manage(path);
        sd_bus_default_system(&own);
        test::ClearLog();
    }
    ~Setting() { sd_bus_flush_close_unref(own); }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;

    kit::PrivateBus bus;
    kit::FakeService object;
    sd_bus* own = nullptr;
};

} // namespace every_member
