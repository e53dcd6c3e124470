#pragma once

// The controller's event log: decodes the entries that services file, and prints them.

#include <bmcbus/testing/service.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace simulator
{

class EventLog
{
  public:
    // Serves the log as an object of `service`.
    explicit EventLog(bmcbus::testing::Service& service);
};

// The texts of an argument block: two hexadecimal digits a byte, a zero byte after each text and
// one more at the end. Throws std::invalid_argument for anything else.
std::vector<std::string> DecodeArguments(const std::string& block);

} // namespace simulator
