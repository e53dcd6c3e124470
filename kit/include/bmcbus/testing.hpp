#pragma once

/**
 * @file
 * The testing kit: test code that talks D-Bus without a BMC.
 *
 * A private bus, the simulated BMC on it, services made from introspection XML with faults on
 * demand, the object mapper, a recorder of what went over the wire, and waiting without sleeping. A
 * complete test:
 *
 * @code
 * #include <bmcbus/testing.hpp>
 * #include <gtest/gtest.h>
 *
 * TEST(Fans, CountIsRead)
 * {
 *     bmcbus::testing::PrivateBus bus;
 *     bmcbus::testing::FakeService fans("com.example.Fans", "/fans",
 *                                       {"com.tamm.bmc.Thermal.FanReporting"}, {{"fanCount", 4}});
 *     EXPECT_EQ(NumberOfFans("com.example.Fans", "/fans"), 4); // the code under test
 * }
 * @endcode
 *
 * Build with `pkg-config --cflags --libs bmcbus-testing`, or `dependency('bmcbus-testing')` in
 * Meson. Nothing here is meant for production code. The kit uses libsystemd only, none of the
 * library that it tests.
 */

#include <bmcbus/testing/description.hpp>
#include <bmcbus/testing/fake_event_log.hpp>
#include <bmcbus/testing/fake_mapper.hpp>
#include <bmcbus/testing/fake_service.hpp>
#include <bmcbus/testing/faults.hpp>
#include <bmcbus/testing/log_recorder.hpp>
#include <bmcbus/testing/monitor.hpp>
#include <bmcbus/testing/peers.hpp>
#include <bmcbus/testing/private_bus.hpp>
#include <bmcbus/testing/process.hpp>
#include <bmcbus/testing/service.hpp>
#include <bmcbus/testing/simulator.hpp>
#include <bmcbus/testing/text.hpp>
#include <bmcbus/testing/value.hpp>
#include <bmcbus/testing/wait.hpp>
