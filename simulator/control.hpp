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
    using Step = std::function<void()>;                         // lets a period pass
    using Plug = std::function<bool(const std::string&, bool)>; // see Part::Plug()

    // For these services, which outlive the object.
    Control(const std::vector<bmcbus::testing::Service*>& known, Step step, Plug plug,
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

    void ServePlugs(bmcbus::testing::Object& object, const Plug& plug);
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
