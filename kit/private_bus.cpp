// A dbus-daemon with a configuration and a socket in a temporary folder. It is a Process, so that
// it ends with the test however that ends.

#include <bmcbus/testing/private_bus.hpp>
#include <bmcbus/testing/value.hpp>

#include "connect.hpp"
#include "leftovers.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace bmcbus::testing
{
namespace
{

constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* folderName = "bmcbus-test-";
constexpr size_t longestSocketPath = 100;

std::string FindDaemon()
{
    const char* given = std::getenv("BMCBUS_DBUS_DAEMON");
    std::string found = Process::Find(given != nullptr ? given : "dbus-daemon");
    if (found.empty() && given != nullptr)
    {
        throw std::runtime_error("dbus-daemon did not start: there is no program " +
                                 std::string(given));
    }
    if (found.empty())
    {
        throw std::runtime_error("no dbus-daemon in PATH: install it (Debian: apt install "
                                 "dbus-daemon) or name it in BMCBUS_DBUS_DAEMON");
    }
    return found;
}

std::filesystem::path MakeFolder()
{
    std::string base = std::filesystem::temp_directory_path();
    if (base.size() > longestSocketPath - 30)
    {
        base = "/tmp"; // a socket's path has a limit of its own
    }
    RemoveLeftovers(base, folderName);
    std::string name = base + "/" + folderName + "XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
    {
        Check(-errno, "mkdtemp " + name);
    }
    return name;
}

// A path as an address spells it: all but a few characters by their numbers. That also keeps it
// apart from the markup of a configuration.
std::string AddressOf(const std::filesystem::path& socket)
{
    constexpr std::string_view plain = "-_/.\\*";
    std::string address = "unix:path=";
    for (const char c : socket.native())
    {
        const bool alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (alphanumeric || plain.find(c) != std::string_view::npos)
        {
            address += c;
        }
        else
        {
            constexpr const char* digits = "0123456789abcdef";
            const auto byte = static_cast<unsigned char>(c);
            address += {'%', digits[byte / 16], digits[byte % 16]};
        }
    }
    return address;
}

} // namespace

PrivateBus::PrivateBus(const BusLimits& limits) :
    daemonPath(FindDaemon()), folder(MakeFolder()), hold(HoldFolder(folder)), owner(getpid())
{
    address = AddressOf(folder / "bus");
    try
    {
        WriteConfiguration(limits);
        Start();
    }
    catch (...)
    {
        std::filesystem::remove_all(folder);
        close(hold);
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
    if (getpid() != owner)
    {
        return;
    }
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
    close(hold);
}

void PrivateBus::WriteConfiguration(const BusLimits& limits) const
{
    std::ofstream file(folder / "bus.conf");
    const auto limit = [&](const char* name, unsigned int value)
    { file << " <limit name=\"" << name << "\">" << value << "</limit>\n"; };
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
    daemon = std::make_unique<Process>(
        std::vector<std::string>{daemonPath, "--config-file=" + (folder / "bus.conf").string(),
                                 "--nofork", "--nopidfile", "--print-address"});
    // It prints its address when it listens.
    if (!daemon->Says("unix:"))
    {
        const std::string words = daemon->Output();
        daemon.reset();
        throw std::runtime_error("dbus-daemon did not start: " + words);
    }
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
                  [&](const std::string& name) { return !name.starts_with(':') || name == own; });
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace bmcbus::testing
