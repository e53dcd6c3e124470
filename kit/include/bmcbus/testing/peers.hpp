#pragma once

/**
 * @file
 * Two connected ends without a bus daemon.
 */

#include <bmcbus/testing/value.hpp>

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/** A counted message reference, released on the thread of its connection. */
using MessagePtr = std::shared_ptr<sd_bus_message>;

/**
 * A client and a server end of a socket pair, for decoders and replies: no daemon, no names, no
 * thread, microseconds.
 *
 * @code
 * Peers peers;
 * MessagePtr message = peers.Message({std::map<std::string, int>{{"a", 1}}});
 * EXPECT_EQ(Decode(message.get()), ...);
 * @endcode
 *
 * The object and everything that it gives out belong to one thread.
 */
class Peers
{
  public:
    /** Connects both ends; throws std::system_error. */
    Peers();
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    /** The end that calls, borrowed. */
    sd_bus* Client() const { return client; }
    /** The end that answers, borrowed. */
    sd_bus* Server() const { return server; }

    /** Processes both ends until @p done gives true; false when nothing is left to process. */
    bool Pump(const std::function<bool()>& done) const;

    /**
     * A message with this body as its receiver sees it: sealed, read position at the start.
     *
     * Nothing is sent. Bodies that no careful peer would send are fine. Throws std::system_error.
     */
    MessagePtr Message(const std::vector<Value>& body,
                       const std::string& interface = "com.example.Interface",
                       const std::string& member = "Member", const std::string& path = "/") const;

  private:
    sd_bus* client = nullptr;
    sd_bus* server = nullptr;
};

} // namespace bmcbus::testing
