#pragma once

/**
 * @file
 * A bus daemon of the test's own.
 */

#include <bmcbus/testing/process.hpp>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/** What a bus daemon allows one connection or user: a plain value, for one thread at a time. */
struct BusLimits
{
    unsigned int matchRulesPerConnection = 512;     /**< AddMatch is refused beyond */
    unsigned int pendingRepliesPerConnection = 128; /**< calls are refused beyond */
    unsigned int connectionsPerUser = 256;          /**< connecting is refused beyond */
    unsigned int namesPerConnection = 512;          /**< RequestName is refused beyond */

    /** What a system bus allows as it is installed. */
    static BusLimits Stock() { return {}; }
    /** So much that no test meets a limit. */
    static BusLimits Roomy() { return {50000, 50000, 50000, 50000}; }
};

/**
 * Starts `dbus-daemon` in a temporary folder and makes it the process's system bus, by
 * DBUS_SYSTEM_BUS_ADDRESS, for the object's lifetime.
 *
 * @code
 * class FanTest : public ::testing::Test
 * {
 *     PrivateBus bus; // first: whatever connects must go before the bus does
 *     FakeService fans{"com.example.Fans", "/fans", {"com.tamm.bmc.Thermal.FanReporting"}};
 * };
 * @endcode
 *
 * The daemon found first is taken: environment variable BMCBUS_DBUS_DAEMON, then PATH. It ends with
 * the object, and with the process however that ends. Neither the machine's own buses nor their
 * configuration are touched.
 *
 * **Threads.** The constructor and the destructor change the environment, so no other thread may
 * read it meanwhile (connecting reads it): create the bus before, destroy it after whatever uses
 * it. One thread at a time may use the object. All members block, for milliseconds.
 *
 * **fork().** A child may talk to the bus; it must not use this object. Destroying it there, also
 * by exit(), harms nothing.
 */
class PrivateBus
{
  public:
    /**
     * Starts the daemon and waits until it listens.
     *
     * Throws std::runtime_error with the daemon's own words when there is none or it does not
     * start.
     */
    explicit PrivateBus(const BusLimits& limits = BusLimits::Roomy());
    /** Ends the daemon, removes the folder, restores the environment variable. */
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /** Where the daemon listens, as in DBUS_SYSTEM_BUS_ADDRESS. The same after Restart(). */
    const std::string& Address() const { return address; }

    /**
     * The temporary folder; tests may keep files there. That of a test which crashed is removed
     * when the next bus is made.
     */
    const std::filesystem::path& Folder() const { return folder; }

    /** Ends the daemon at once: every connection is lost, connecting fails. */
    void Kill();

    /** Starts a daemon at the same address, after Kill() or in place of the running one. */
    void Restart();

    /** True while a daemon runs. */
    bool Running() const;

    /**
     * The unique names of all connections of other parties, in byte order. An empty list at the end
     * of a test shows that nothing was left behind.
     */
    std::vector<std::string> Connections() const;

  private:
    void Start();
    void WriteConfiguration(const BusLimits& limits) const;

    std::string daemonPath;
    std::filesystem::path folder;
    const int hold; // keeps the folder from being taken for the leftover of a crash
    std::string address;
    std::unique_ptr<Process> daemon;
    std::string before;
    bool wasSet = false;
    const pid_t owner;
};

} // namespace bmcbus::testing
