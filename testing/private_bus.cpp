#include <bmcbus/testing/private_bus.hpp>
#include <bmcbus/testing/value.hpp>
#include <bmcbus/testing/wait.hpp>

#include "connect.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace bmcbus::testing
{
namespace
{

constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr size_t longestSocketPath = 100;

std::string FindDaemon()
{
    if (const char* given = std::getenv("BMCBUS_DBUS_DAEMON"))
    {
        return given;
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(std::string(path == nullptr ? "" : path) + ":/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
    {
        const std::string candidate = folder + "/dbus-daemon";
        if (!folder.empty() && access(candidate.c_str(), X_OK) == 0)
        {
            return candidate;
        }
    }
    throw std::runtime_error("no dbus-daemon in PATH: install it (Debian: apt install "
                             "dbus-daemon) or name it in BMCBUS_DBUS_DAEMON");
}

std::filesystem::path MakeFolder()
{
    std::string base = std::filesystem::temp_directory_path();
    if (base.size() > longestSocketPath - 30)
    {
        base = "/tmp"; // a socket's path has a limit of its own
    }
    std::string name = base + "/bmcbus-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
    {
        Check(-errno, "mkdtemp " + name);
    }
    return name;
}

std::string ReadFile(const std::filesystem::path& file)
{
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

} // namespace

// One daemon process. The thread that forks it lives as long as this object, because the kernel
// ends the child with the thread that made it, not with the process.
class PrivateBus::Daemon
{
  public:
    Daemon(const std::string& program, const std::filesystem::path& folder);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    bool Running() const;

  private:
    void Keep(const std::string& program, const std::filesystem::path& folder);
    [[noreturn]] static void Become(const char* const* arguments, int readyFd, int logFd,
                                    pid_t parent);
    void End();
    void AwaitReady(int fd, const std::filesystem::path& log);

    mutable std::mutex mutex;
    std::condition_variable changed;
    pid_t pid = -1;
    int failure = 0;
    bool started = false;
    bool ending = false;
    int ready[2] = {-1, -1};
    std::thread keeper;
};

PrivateBus::Daemon::Daemon(const std::string& program, const std::filesystem::path& folder)
{
    Check(pipe2(ready, O_CLOEXEC) < 0 ? -errno : 0, "pipe");
    keeper = std::thread(
        [this, &program, &folder]
        {
            Keep(program, folder);
        });
    {
        std::unique_lock lock(mutex);
        changed.wait(lock,
                     [this]
                     {
                         return started;
                     });
    }
    close(ready[1]);
    try
    {
        Check(-failure, "start " + program);
        AwaitReady(ready[0], folder / "daemon.log");
    }
    catch (...)
    {
        End();
        throw;
    }
}

PrivateBus::Daemon::~Daemon()
{
    End();
}

void PrivateBus::Daemon::End()
{
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_all();
    keeper.join();
    close(ready[0]);
}

void PrivateBus::Daemon::Become(const char* const* arguments, int readyFd, int logFd, pid_t parent)
{
    // Only calls that are safe between fork and exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (getppid() == parent && dup2(logFd, STDERR_FILENO) >= 0 && dup2(readyFd, 3) >= 0)
    {
        fcntl(3, F_SETFD, 0);                  // in case that it was number 3 already
        syscall(SYS_close_range, 4U, ~0U, 0U); // the test's own descriptors
        execv(arguments[0], const_cast<char* const*>(arguments));
    }
    _exit(127);
}

void PrivateBus::Daemon::Keep(const std::string& program, const std::filesystem::path& folder)
{
    const std::string configuration = "--config-file=" + (folder / "bus.conf").string();
    const std::string log = folder / "daemon.log";
    const char* const arguments[] = {program.c_str(), configuration.c_str(), "--nofork",
                                     "--nopidfile",   "--print-address=3",   nullptr};
    const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    const pid_t child = logFd < 0 ? -1 : fork();
    if (child == 0)
    {
        Become(arguments, ready[1], logFd, parent);
    }
    const int error = child < 0 ? errno : 0;
    if (logFd >= 0)
    {
        close(logFd);
    }
    {
        const std::lock_guard lock(mutex);
        pid = child;
        failure = error;
        started = true;
    }
    changed.notify_all();
    std::unique_lock lock(mutex);
    changed.wait(lock,
                 [this]
                 {
                     return ending;
                 });
    if (child > 0)
    {
        kill(child, SIGKILL);
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
        {
        }
    }
}

void PrivateBus::Daemon::AwaitReady(int fd, const std::filesystem::path& log)
{
    // The daemon prints its address when it listens, and closes the pipe when it cannot.
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    int woken = 0;
    do
    {
        woken = poll(&wait, 1, static_cast<int>(patience.count()));
    } while (woken < 0 && errno == EINTR);
    char first = 0;
    if (woken <= 0 || read(fd, &first, 1) != 1)
    {
        throw std::runtime_error("dbus-daemon did not start: " + ReadFile(log));
    }
}

bool PrivateBus::Daemon::Running() const
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

PrivateBus::PrivateBus(const BusLimits& limits) : daemonPath(FindDaemon())
{
    folder = MakeFolder();
    address = "unix:path=" + (folder / "bus").string();
    try
    {
        WriteConfiguration(limits);
        Start();
    }
    catch (...)
    {
        std::filesystem::remove_all(folder);
        throw;
    }
    if (const char* value = std::getenv(variable))
    {
        before = value;
        wasSet = true;
    }
    setenv(variable, address.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    Kill();
    if (wasSet)
    {
        setenv(variable, before.c_str(), 1);
    }
    else
    {
        unsetenv(variable);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void PrivateBus::WriteConfiguration(const BusLimits& limits) const
{
    std::ofstream file(folder / "bus.conf");
    const auto limit = [&](const char* name, unsigned int value)
    {
        file << " <limit name=\"" << name << "\">" << value << "</limit>\n";
    };
    file << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            " <type>system</type>\n"
            " <listen>"
         << address
         << "</listen>\n"
            " <auth>EXTERNAL</auth>\n"
            " <policy context=\"default\">\n"
            "  <allow user=\"*\"/>\n"
            "  <allow own=\"*\"/>\n"
            "  <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
            "  <allow receive_sender=\"*\" eavesdrop=\"true\"/>\n"
            "  <allow send_type=\"method_call\"/>\n"
            " </policy>\n";
    limit("max_match_rules_per_connection", limits.matchRulesPerConnection);
    limit("max_replies_per_connection", limits.pendingRepliesPerConnection);
    limit("max_connections_per_user", limits.connectionsPerUser);
    limit("max_completed_connections", std::max(2048U, limits.connectionsPerUser));
    limit("max_names_per_connection", limits.namesPerConnection);
    file << "</busconfig>\n";
    if (!file.flush())
    {
        throw std::runtime_error("cannot write " + (folder / "bus.conf").string());
    }
}

void PrivateBus::Start()
{
    daemon = std::make_unique<Daemon>(daemonPath, folder);
}

void PrivateBus::Kill()
{
    daemon.reset();
}

void PrivateBus::Restart()
{
    Kill();
    std::error_code ignored;
    std::filesystem::remove(folder / "bus", ignored);
    Start();
}

bool PrivateBus::Running() const
{
    return daemon && daemon->Running();
}

std::vector<std::string> PrivateBus::Connections() const
{
    const Owned<sd_bus> bus = Connect(address);
    const char* own = nullptr;
    Check(sd_bus_get_unique_name(bus.get(), &own), "sd_bus_get_unique_name");
    sd_bus_message* message = nullptr;
    Check(sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "ListNames", nullptr, &message, ""),
          "ListNames");
    const Owned<sd_bus_message> reply(message);
    auto names = Value::Read(message).Get<std::vector<std::string>>();
    std::erase_if(names,
                  [&](const std::string& name)
                  {
                      return !name.starts_with(':') || name == own;
                  });
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace bmcbus::testing
