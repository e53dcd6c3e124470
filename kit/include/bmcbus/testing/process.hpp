#pragma once

/**
 * @file
 * A program that a test runs beside itself.
 */

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/**
 * A child process whose output is kept: a service of yours on the private bus, for example. It ends
 * with the object, and with the test's process however that ends.
 *
 * @code
 * PrivateBus bus;
 * Process service({"/usr/libexec/fan-control", "--verbose"});
 * ASSERT_TRUE(service.Says("ready")) << service.Output();
 * @endcode
 *
 * The child has the test's environment as it is when the object is made, no signals blocked, and
 * none of the test's descriptors; it reads nothing.
 *
 * **Threads.** One thread at a time may use the object. The constructor reads the environment.
 *
 * **fork().** A child of the test must not use the object; destroying it there, also by exit(),
 * harms nothing.
 */
class Process
{
  public:
    /**
     * Starts @p command, the program first: a path, or a name that is looked up in PATH. Blocks
     * until the child exists, not until it runs.
     *
     * Throws std::runtime_error when there is no such program, std::system_error when there can be
     * no more processes. A program that cannot be executed, for want of its interpreter for
     * example, ends with status 127, and Output() says why.
     *
     * @param variables  "NAME=value", in the place of those that the test has itself
     */
    explicit Process(const std::vector<std::string>& command,
                     const std::vector<std::string>& variables = {});
    /** Kills the child, and what it started itself (its process group). */
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /** The path of a program as PATH has it; empty when it has none. */
    static std::string Find(const std::string& name);

    /**
     * Waits until a line of the output begins with @p start.
     *
     * @return false when the child ends without such a line, or after the usual bound
     */
    bool Says(const std::string& start) const;

    /** What the child has printed so far, on standard output and standard error. */
    std::string Output() const;

    /** True until the child has ended. */
    bool Running() const;

    /** Sends a signal to the child; nothing happens when it has ended. */
    void Signal(int number) const;

    /**
     * Waits until the child has ended by itself or by a signal sent before.
     *
     * @return its exit status; -1 when a signal ended it, or when it still runs after the usual
     * bound
     */
    int Wait();

  private:
    class Keeper;

    std::unique_ptr<Keeper> keeper;
};

} // namespace bmcbus::testing
