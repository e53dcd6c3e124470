#pragma once

// Every test program records the library's lines, with the recorder of the testing kit.

#include <bmcbus/testing/log_recorder.hpp>

namespace test
{

using bmcbus::testing::ClearLog;
using bmcbus::testing::CountLog;
using bmcbus::testing::Describe;
using bmcbus::testing::Log;
using bmcbus::testing::LogLine;
using bmcbus::testing::LogOf;
using bmcbus::testing::SetLogThreshold;

} // namespace test
