#pragma once

// The other end of a connection: says what a bus daemon says as far as one client needs it, and
// answers calls as their method names ask for. Runs on a thread of its own; what
// DBUS_SYSTEM_BUS_ADDRESS names while it lives.

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <thread>
#include <vector>

namespace test
{

class BusServer
{
  public:
    // Methods that it knows, at any destination and path:
    //   Echo   answers with the call's arguments
    //   Emit   sends the signal Changed of com.example.Interface at /path with its argument first
    //   Fail   answers with the error com.example.Error.Foo, "text"
    //   Silent never answers
    //   Drop   closes the connection
    // A match rule with the word "refused" in it is refused.
    BusServer();
    ~BusServer();
    BusServer(const BusServer&) = delete;
    BusServer& operator=(const BusServer&) = delete;

  private:
    void Run();
    static int Accept(sd_event_source* source, int fd, uint32_t revents, void* self);
    static int Stop(sd_event_source* source, int fd, uint32_t revents, void* self);
    static int Handle(sd_bus_message* call, void* self, sd_bus_error* error);

    int listener = -1;
    int stop = -1;
    sd_event* loop = nullptr;
    std::vector<sd_bus*> connections;
    std::thread thread;
};

} // namespace test
