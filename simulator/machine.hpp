#pragma once

// The whole simulated controller on one event loop: the model, the services that publish it, the
// object mapper, and the clock that drives them.

#include "control.hpp"
#include "debug.hpp"
#include "mapper.hpp"
#include "memory.hpp"
#include "network.hpp"
#include "power.hpp"
#include "processors.hpp"
#include "thermal.hpp"

#include <memory>
#include <vector>

namespace simulator
{

struct Options
{
    uint32_t period = 1000; // milliseconds; 0: time stands still but for Step calls
    uint32_t seed = 1;
    bool mapper = true;
    bool ownManagers = false; // objects announce themselves from their own paths
};

class Machine
{
  public:
    // Connects everything; throws std::system_error when there is no bus or a name is taken.
    Machine(const Options& chosen, sd_event* event);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Why the loop ended, unless a signal ended it.
    const std::string& Failure() const { return failure; }

  private:
    std::vector<bmcbus::testing::Service*> Services() const;
    void Step();
    static int OnTimer(sd_event_source* source, uint64_t now, void* self);

    const Options options;
    sd_event* const loop;
    Model model;
    std::vector<std::unique_ptr<Part>> parts;
    std::unique_ptr<Mapper> mapper;
    Control control;
    sd_event_source* timer = nullptr;
    // The connection ends the loop without a word when it is lost.
    std::string failure = "the bus is gone";
};

} // namespace simulator
