#pragma once

// The service that the exchanges are made with, and its cached object written by hand.

#include "contender.hpp"

#include <systemd/sd-bus.h>

#include <string>

namespace bench::fans
{

constexpr const char* service = "com.example.Bench";
constexpr const char* path = "/fans";
constexpr const char* interface = "com.tamm.bmc.Thermal.FanReporting";
constexpr uint8_t present = 6; // its property

// The plainest cached object: one property, and the three match rules that the library's has.
class Plain
{
  public:
    // Queues the rules; `onChange` runs after a PropertiesChanged of the interface.
    Plain(sd_bus* bus, const std::string& objectPath, void (*onChange)());
    ~Plain();
    Plain(const Plain&) = delete;
    Plain& operator=(const Plain&) = delete;

    // Waits for the reply to a GetAll.
    void Read(sd_bus* bus, const char* from, const char* objectPath);

    uint8_t fanCount = 0;

  private:
    static int OnChanged(sd_bus_message* message, void* user, sd_bus_error* error);
    void Store(sd_bus_message* message);

    void (*changed)();
    sd_bus_slot* slots[3] = {};
};

} // namespace bench::fans
