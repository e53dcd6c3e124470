#include "process.hpp"

#include <bmcbus/testing/wait.hpp>

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <stdexcept>

namespace test
{
namespace
{

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Process::Process(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& variables)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    out = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    std::vector<std::string> command = {SIMULATOR_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = variables;
    for (char** variable = environ; *variable != nullptr; ++variable)
    {
        environment.emplace_back(*variable);
    }
    const int failed = posix_spawn(&child, SIMULATOR_PROGRAM, &actions, nullptr,
                                   Pointers(command).data(), Pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failed != 0)
    {
        child = -1;
        close(out);
        throw std::runtime_error("cannot start " SIMULATOR_PROGRAM);
    }
}

Process::~Process()
{
    if (child > 0)
    {
        Signal(SIGKILL);
        Wait();
    }
    close(out);
}

bool Process::Read()
{
    pollfd readable{out, POLLIN, 0};
    char buffer[4096];
    if (poll(&readable, 1, static_cast<int>(bmcbus::testing::patience.count())) <= 0)
    {
        return false;
    }
    const ssize_t count = read(out, buffer, sizeof(buffer));
    if (count <= 0)
    {
        return false;
    }
    output.append(buffer, static_cast<size_t>(count));
    return true;
}

bool Process::Says(const std::string& start)
{
    do
    {
        const size_t at = ("\n" + output).find("\n" + start);
        if (at != std::string::npos && output.find('\n', at) != std::string::npos)
        {
            return true;
        }
    } while (Read());
    return false;
}

void Process::Signal(int number) const
{
    kill(child, number);
}

int Process::Wait()
{
    while (Read())
    {
    }
    int status = 0;
    const bool ended = bmcbus::testing::Until(
        [&]
        {
            return waitpid(child, &status, WNOHANG) == child;
        });
    if (!ended || !WIFEXITED(status))
    {
        child = ended ? -1 : child;
        return -1;
    }
    child = -1;
    return WEXITSTATUS(status);
}

} // namespace test
