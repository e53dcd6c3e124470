#pragma once

// The simulator as a child process whose output is read.

#include <csignal>
#include <string>
#include <vector>

namespace test
{

class Process
{
  public:
    // Starts the program with these arguments; `variables` ("NAME=value") are added to the
    // environment.
    explicit Process(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& variables = {});
    // Kills it if it still runs.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Reads its output until a line begins with `start`; false when it ends before, or after a
    // bound.
    bool Says(const std::string& start);

    // Sends the signal.
    void Signal(int number) const;

    // Waits for its end: the exit status, or -1 when it did not end by itself within a bound.
    int Wait();

    // What it has printed so far on both outputs, as far as Says() and Wait() have read it.
    const std::string& Output() const
    {
        return output;
    }

  private:
    // Adds to `output`; false at the end or after a bound.
    bool Read();

    pid_t child = -1;
    int out = -1;
    std::string output;
};

} // namespace test
