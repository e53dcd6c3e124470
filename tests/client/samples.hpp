#pragma once

// Values of every type, and an object on a bus of its own that has them.

#include "every_member.hpp"
#include "log_recorder.hpp"

#include <bmcbus/testing/fake_service.hpp>
#include <bmcbus/testing/private_bus.hpp>

#include <gtest/gtest.h>

namespace every_member
{

// Enough for booleans to differ between any two members.
inline constexpr unsigned int rounds = 8;

// The value number `index` of a type, in `round`. Never that of a new object, except for booleans.
kit::Value Sample(const std::string& type, unsigned int index, unsigned int round = 0);

Values Samples(const std::vector<std::string>& types, unsigned int index);

// One for each member, in their order.
kit::NamedValues Samples(const Members& members, unsigned int round);

inline const char* const broken = "com.example.Error.Broken";
inline const std::string brokenLine = "EXCEPTION sd_bus_call: com.example.Error.Broken: so there";

// A bus, an object with the class's interface, and a connection that stays.
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
