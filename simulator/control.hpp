#pragma once

// Lets people and tests break the simulated machine at run time, over the bus.

#include <bmcbus/testing/faults.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace simulator
{

class Control
{
  public:
    // For these services, which outlive the object; `step` lets a period pass.
    Control(const std::vector<bmcbus::testing::Service*>& known, std::function<void()> step,
            sd_event* loop);

    // Its connection, borrowed.
    sd_bus* Connection() const { return service.Connection(); }

  private:
    struct Served
    {
        explicit Served(bmcbus::testing::Service& known) : service(known), faults(known) {}
        bmcbus::testing::Service& service;
        bmcbus::testing::Faults faults;
    };

    void ServeLife(bmcbus::testing::Object& object);
    void ServeAnswers(bmcbus::testing::Object& object);
    void ServeAnnouncements(bmcbus::testing::Object& object);
    // The service that a call names in its first argument.
    Served& Named(const bmcbus::testing::Call& call) const;
    // The object whose path it names there, of a service that is on the bus.
    bmcbus::testing::Object& ObjectOf(const bmcbus::testing::Call& call) const;

    std::vector<std::unique_ptr<Served>> services;
    bmcbus::testing::Service service;
};

} // namespace simulator
