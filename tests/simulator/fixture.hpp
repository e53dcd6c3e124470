#pragma once

// A private bus with the simulator on it, and a client.

#include "client.hpp"

#include <bmcbus/testing/fake_mapper.hpp>
#include <bmcbus/testing/private_bus.hpp>
#include <bmcbus/testing/simulator.hpp>
#include <bmcbus/testing/wait.hpp>

#include <gtest/gtest.h>

namespace test
{

using bmcbus::testing::NamedValues;
using bmcbus::testing::Path;

inline constexpr const char* thermal = "com.tamm.bmc.Thermal";
inline constexpr const char* chassisFans = "/com/tamm/bmc/thermal/fans/chassis";
inline constexpr const char* fanReporting = "com.tamm.bmc.Thermal.FanReporting";
inline constexpr const char* wharfd = "com.tamm.ovrik.wharfd.wharfd";
inline constexpr const char* network = "/com/tamm/ovrik/wharfd/network";

// Time stands still unless a test lets a step pass.
class SimulatorTest : public ::testing::Test
{
  protected:
    explicit SimulatorTest(const std::vector<std::string>& arguments = {"--period", "0"}) :
        simulator(arguments)
    {
    }

    // Both give the answer as text.
    std::string Read(const std::string& service, const std::string& path,
                     const std::string& interface, const std::string& property) const
    {
        return client.Properties(service, path, "Get", {interface, property}).Text();
    }
    std::string Write(const std::string& service, const std::string& path,
                      const std::string& interface, const std::string& property,
                      const Value& value) const
    {
        return client.Properties(service, path, "Set", {interface, property, Value::Variant(value)})
            .Text();
    }

    Client::Answer Ask(const std::string& query, const std::vector<Value>& arguments) const
    {
        return client.Call(bmcbus::testing::mapperName, bmcbus::testing::mapperPath,
                           bmcbus::testing::mapperName, query, arguments);
    }

    Client::Answer Control(const std::string& method,
                           const std::vector<Value>& arguments = {}) const
    {
        return client.Call("com.tamm.bmc.Simulator", "/com/tamm/bmc/simulator",
                           "com.tamm.bmc.Simulator", method, arguments);
    }

    bmcbus::testing::PrivateBus bus;
    bmcbus::testing::Simulator simulator;
    Client client;
};

} // namespace test
