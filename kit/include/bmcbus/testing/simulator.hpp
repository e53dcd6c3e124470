#pragma once

/**
 * @file
 * The simulated BMC, for tests.
 */

#include <bmcbus/testing/process.hpp>
#include <bmcbus/testing/value.hpp>

#include <string>
#include <vector>

namespace bmcbus::testing
{

/**
 * Runs `bmcbus-simulator` on the system bus of the process, which is a PrivateBus made before: the
 * object mapper, objects for all interfaces of the catalogue, and the event log.
 *
 * @code
 * TEST(Fans, AreAllRead)
 * {
 *     PrivateBus bus;
 *     Simulator bmc;
 *     EXPECT_EQ(ReadFans().size(), 6); // the code under test
 *     bmc.Step();                      // values move, signals are sent
 *     bmc.Control("CrashService", {"com.tamm.bmc.Thermal"});
 *     bmc.Control("AnswerLate", {"com.tamm.bmc.Power", "GetAll", uint32_t{20}});
 * }
 * @endcode
 *
 * Time stands still unless the options say otherwise, so that a test sees the same values every
 * time. The program found first is taken: environment variable BMCBUS_SIMULATOR, SetProgram(),
 * PATH.
 *
 * All members block; see Process for threads and fork().
 */
class Simulator
{
  public:
    /**
     * Starts it and waits until its services are there.
     *
     * Throws std::runtime_error with the simulator's own words when it does not start.
     *
     * @param options  of the program, see `bmcbus-simulator --help`
     */
    explicit Simulator(const std::vector<std::string>& options = {"--period", "0"});

    /** Where the program is, for all objects made afterwards; the environment goes before it. */
    static void SetProgram(const std::string& path);

    /** Lets one period pass. */
    void Step() const;

    /**
     * Calls a method of the simulator's interface `com.tamm.bmc.Simulator`: services leave and
     * return, answers are wrong, late or missing, losses are announced. `busctl introspect` shows
     * the methods; the arguments must have exactly their types.
     *
     * Throws std::runtime_error with the error's name and text when it refuses.
     */
    void Control(const std::string& method, const std::vector<Value>& arguments = {}) const;

    /** What it has printed: the entries filed in its event log, for example. */
    std::string Output() const { return process.Output(); }

    /** Waits until a line of the output begins with @p start; false when none does. */
    bool Says(const std::string& start) const { return process.Says(start); }

    /** Ends it as its user would, and waits: its exit status. */
    int Stop();

  private:
    Process process;
};

} // namespace bmcbus::testing
