// The child is forked by a thread that lives as long as the object, writes into a file without a
// name, and is reaped last of all, so that its number stays its own.

#include <bmcbus/testing/process.hpp>
#include <bmcbus/testing/wait.hpp>

#include "check.hpp"
#include "fork.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace bmcbus::testing
{
namespace
{

std::vector<char*> Pointers(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// A file without a name, for the output: unlike a pipe it never holds the child up.
class Sink
{
  public:
    Sink() : fd(memfd_create("output", MFD_CLOEXEC)) { Check(fd < 0 ? -errno : 0, "memfd_create"); }
    ~Sink() { close(fd); }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    int Descriptor() const { return fd; }

    std::string Text() const
    {
        std::string text;
        std::array<char, 4096> part{};
        ssize_t count = 0;
        while ((count = pread(fd, part.data(), part.size(), static_cast<off_t>(text.size()))) > 0)
        {
            text.append(part.data(), static_cast<size_t>(count));
        }
        return text;
    }

  private:
    int fd;
};

} // namespace

// A number that a child can leave to its parent.
class SharedNumber
{
  public:
    SharedNumber() :
        number(static_cast<int*>(
            mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        Check(number == MAP_FAILED ? -errno : 0, "mmap");
    }
    ~SharedNumber() { munmap(number, sizeof(int)); }
    SharedNumber(const SharedNumber&) = delete;
    SharedNumber& operator=(const SharedNumber&) = delete;

    int& operator*() const { return *number; }

  private:
    int* number;
};

// What a program started with these variables has in its environment.
std::vector<std::string> Environment(const std::vector<std::string>& variables)
{
    std::vector<std::string> environment = variables;
    for (char** inherited = environ; *inherited != nullptr; ++inherited)
    {
        const std::string entry = *inherited;
        const std::string start = entry.substr(0, entry.find('=') + 1);
        if (std::none_of(variables.begin(), variables.end(),
                         [&](const std::string& variable) { return variable.starts_with(start); }))
        {
            environment.push_back(entry);
        }
    }
    return environment;
}

// The thread that forks the child lives as long as this object, because the kernel ends the child
// with the thread that made it, not with the process.
class Process::Keeper
{
  public:
    Keeper(std::vector<std::string> command, std::vector<std::string> environment);
    ~Keeper();
    Keeper(const Keeper&) = delete;
    Keeper& operator=(const Keeper&) = delete;

    // Learns whether the child has ended and how. It is reaped only by the destructor, so that
    // neither its number nor that of its group is anybody else's before.
    bool Ended();

    void Signal(int number) const
    {
        if (!ended)
        {
            kill(pid, number);
        }
    }

    const Home home;

    // What the child printed, and why it could not become the program.
    std::string Output() const;

    // The exit status; -1 unless the child has ended by itself.
    int Status() const { return ended && how.si_code == CLD_EXITED ? how.si_status : -1; }

  private:
    void Keep(char* const* arguments, char* const* variables);
    [[noreturn]] void Become(char* const* arguments, char* const* variables, pid_t parent) const;

    const std::string program;
    const Sink sink;
    const SharedNumber refusal; // of execve()
    std::mutex mutex;
    std::condition_variable changed;
    pid_t pid = -1;
    int failure = 0;
    siginfo_t how = {};
    bool ended = false;
    bool started = false;
    bool ending = false;
    std::thread thread;
};

Process::Keeper::Keeper(std::vector<std::string> command, std::vector<std::string> environment) :
    program(command.front())
{
    const std::vector<char*> arguments = Pointers(command);
    const std::vector<char*> variables = Pointers(environment);
    thread = std::thread([&] { Keep(arguments.data(), variables.data()); });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return started; });
    }
    if (failure != 0)
    {
        thread.join();
        Check(-failure, "start " + command.front());
    }
}

Process::Keeper::~Keeper()
{
    kill(pid, SIGKILL); // it may not lead its group yet
    kill(-pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR)
    {
    }
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_all();
    thread.join();
}

void Process::Keeper::Become(char* const* arguments, char* const* variables, pid_t parent) const
{
    // Only calls that are safe between fork and exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int nothing = open("/dev/null", O_RDONLY);
    if (getppid() == parent && dup2(nothing, STDIN_FILENO) >= 0 &&
        dup2(sink.Descriptor(), STDOUT_FILENO) >= 0 && dup2(STDOUT_FILENO, STDERR_FILENO) >= 0)
    {
        syscall(SYS_close_range, 3U, ~0U, 0U); // the test's own descriptors
        execve(arguments[0], arguments, variables);
        *refusal = errno;
    }
    _exit(127);
}

void Process::Keeper::Keep(char* const* arguments, char* const* variables)
{
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0)
    {
        Become(arguments, variables, parent);
    }
    std::unique_lock lock(mutex);
    failure = child < 0 ? errno : 0;
    pid = child;
    started = true;
    changed.notify_all();
    changed.wait(lock, [this] { return ending || failure != 0; });
}

bool Process::Keeper::Ended()
{
    ended =
        ended || (waitid(P_PID, static_cast<id_t>(pid), &how, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                  how.si_pid == pid);
    return ended;
}

std::string Process::Keeper::Output() const
{
    std::string text = sink.Text();
    if (*refusal != 0)
    {
        text +=
            "cannot execute " + program + ": " + std::generic_category().message(*refusal) + "\n";
    }
    return text;
}

Process::Process(const std::vector<std::string>& command, const std::vector<std::string>& variables)
{
    std::vector<std::string> found = command;
    found.at(0) = Find(command.at(0));
    if (found[0].empty())
    {
        throw std::runtime_error("no program " + command[0]);
    }
    keeper = std::make_unique<Keeper>(std::move(found), Environment(variables));
}

Process::~Process()
{
    if (keeper && keeper->home.Left())
    {
        Abandon(keeper);
    }
}

std::string Process::Find(const std::string& name)
{
    if (name.find('/') != std::string::npos)
    {
        return access(name.c_str(), X_OK) == 0 ? name : "";
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(std::string(path == nullptr ? "" : path) + ":/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
    {
        std::string candidate = folder;
        candidate.append("/").append(name);
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0)
        {
            return candidate;
        }
    }
    return "";
}

bool Process::Says(const std::string& start) const
{
    bool said = false;
    Until(
        [&]
        {
            const bool last = keeper->Ended(); // before the output is looked at
            const std::string text = Output();
            const size_t at = ("\n" + text).find("\n" + start);
            said = at != std::string::npos && text.find('\n', at) != std::string::npos;
            return said || last;
        });
    return said;
}

std::string Process::Output() const
{
    return keeper->Output();
}

bool Process::Running() const
{
    return !keeper->Ended();
}

void Process::Signal(int number) const
{
    keeper->Signal(number);
}

int Process::Wait()
{
    Until([this] { return keeper->Ended(); });
    return keeper->Status();
}

} // namespace bmcbus::testing
