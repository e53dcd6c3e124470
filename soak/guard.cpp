// An alarm that every operation sets anew ends the process when one takes too long, and says which.

#include "guard.hpp"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>

namespace soak
{
namespace
{

constexpr unsigned int longest = 300; // seconds; all waits end before

volatile std::sig_atomic_t interrupted = 0;
const char* volatile operation = "";
std::array<std::string, 3> leftovers; // files first

void Write(const char* text)
{
    if (write(STDOUT_FILENO, text, strlen(text)) < 0)
    {
        _exit(4);
    }
}

void Note(int /*signal*/)
{
    interrupted = 1;
}

// A signal handler: it makes only calls that one may make. The processes beside this one end with
// it.
void GiveUp(int /*signal*/)
{
    Write("soak: FAILED: deadlock in operation: ");
    Write(operation);
    Write("\n");
    unlink(leftovers[0].c_str());
    unlink(leftovers[1].c_str());
    rmdir(leftovers[2].c_str());
    _exit(3);
}

void Handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signal, &action, nullptr);
}

} // namespace

void Guard(const std::filesystem::path& folder)
{
    leftovers = {folder / "bus", folder / "bus.conf", folder};
    Handle(SIGINT, Note);
    Handle(SIGTERM, Note);
    Handle(SIGALRM, GiveUp);
}

void Begin(const char* name)
{
    operation = name;
    alarm(longest);
}

void Rest()
{
    alarm(0);
}

bool Interrupted()
{
    return interrupted != 0;
}

} // namespace soak
