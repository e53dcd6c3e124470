#pragma once

// What the client under load lives in: a bus of its own, the simulated machine in a process beside
// it, the thread's connection, and the loop that dispatches connection and channel.

#include "channel_loops.hpp"
#include "failure.hpp"

#include <bmcbus/testing.hpp>
#include <systemd/sd-bus.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace soak
{

namespace kit = bmcbus::testing;

class World
{
  public:
    explicit World(uint64_t seed);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Handles what is there, and waits some milliseconds for more.
    void Turn();
    // Runs the loop until `done`; a failure that says `what` when the bound has passed.
    void Wait(const std::string& what, const test::Condition& done);

    std::vector<kit::Value> Call(const std::string& service, const std::string& path,
                                 const std::string& interface, const std::string& member,
                                 const std::vector<kit::Value>& arguments = {});
    // A method of the simulated machine.
    void Control(const std::string& method, const std::vector<kit::Value>& arguments = {});

    void StopService(const std::string& service);
    void CrashService(const std::string& service);
    void StartService(const std::string& service);
    void StartAllServices();
    bool Up(const std::string& service) const { return !down.contains(service); }

    // SIGKILL, and a new process with other values.
    void KillServices();

    // The bus goes, with everything that is on it; the connection is closed once the caller has let
    // go of what it had there.
    void KillBus();
    void RestartBus();

    void Connect();
    // In a forked child, the parent's connection is only forgotten.
    void Disconnect(bool inherited = false);

    sd_bus* Connection() const { return connection; }
    kit::PrivateBus& Bus() { return bus; }
    test::SdEventLoop& Loop() { return loop; }
    void RegisterChannel();

  private:
    void StartSimulator();

    uint64_t nextSeed;
    kit::PrivateBus bus;
    std::unique_ptr<kit::Simulator> simulator;
    std::set<std::string> down;
    test::SdEventLoop loop;
    sd_bus* connection = nullptr;
};

} // namespace soak
