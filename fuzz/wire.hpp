#pragma once

// The process's default connection is one end of a socket pair; this is the other end. No daemon
// and no thread: everything happens in Deliver().

#include "input.hpp"

#include <bmcbus/testing/peers.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace fuzz
{

class Wire
{
  public:
    // The connection that sd_bus_default_system gives, borrowed.
    sd_bus* Default();

    // Sends a signal and lets the library handle it.
    void Signal(const std::string& path, const std::string& interface, const std::string& member,
                const std::vector<kit::Value>& arguments);

    // The same with some bytes of the body replaced by what comes from `input`: no daemon would
    // let that pass, but nothing may break.
    void Damaged(Input& input, const std::string& path, const std::string& interface,
                 const std::string& member, const std::vector<kit::Value>& arguments);

    // Answers every call that waits at the other end, and lets the library handle the answers.
    using Answer = std::function<void(sd_bus_message* call)>;
    void Serve(const Answer& answer);

    // Handles everything that is under way.
    void Deliver();

  private:
    kit::Peers& Link();

    std::unique_ptr<kit::Peers> peers;
};

// Answers a call with these arguments, or with an error, whose further arguments are for nobody.
void Reply(sd_bus_message* call, const std::vector<kit::Value>& arguments, bool error = false);

// One for the process.
Wire& TheWire();

} // namespace fuzz
