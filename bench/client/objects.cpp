// Many objects on one connection: the heap that each takes, and what a small PropertiesChanged
// costs when it goes to one of them in turn. The hand-written contender installs the same three
// match rules per object. One contender per process.

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;

namespace
{

constexpr const char* interface = "com.tamm.bmc.Thermal.FanReporting";
constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

long received = 0;

void Check(int result, const char* what)
{
    if (result < 0)
    {
        std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result));
        std::exit(1);
    }
}

// Of the same length for every number, so that all messages are the same work.
std::string PathOf(long number)
{
    const std::string digits = std::to_string(number);
    return "/com/example/fans/" + std::string(6 - digits.size(), '0') + digits;
}

// Emits `count` signals to `objects` paths in turn, once told to, and waits to be killed.
[[noreturn]] void Emit(int go, long objects, long count)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char byte = 0;
    Check(read(go, &byte, 1) == 1 ? 0 : -EIO, "go");
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "sd_bus_open_system");
    for (long i = 0; i < count; ++i)
    {
        sd_bus_message* signal = nullptr;
        Check(sd_bus_message_new_signal(bus, &signal, PathOf(i % objects).c_str(),
                                        propertiesInterface, "PropertiesChanged"),
              "new signal");
        Check(sd_bus_message_append(signal, "sa{sv}as", interface, 1, "fanCount", "y",
                                    static_cast<int>(i % 200), 0),
              "append");
        Check(sd_bus_send(bus, signal, nullptr), "send");
        sd_bus_message_unref(signal);
        // The queue towards the daemon is finite.
        Check(i % 500 == 499 ? sd_bus_flush(bus) : 0, "flush");
    }
    Check(sd_bus_flush(bus), "flush");
    while (true)
    {
        pause();
    }
}

// The hand-written object.
struct Plain
{
    uint8_t fanCount = 0;
    sd_bus_slot* slots[3] = {};
};

int OnChanged(sd_bus_message* message, void* user, sd_bus_error*)
{
    const char* which = nullptr;
    sd_bus_message_read_basic(message, 's', &which);
    if (std::strcmp(which, interface) != 0)
    {
        return 0;
    }
    sd_bus_message_enter_container(message, 'a', "{sv}");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
    {
        const char* name = nullptr;
        const char* contents = nullptr;
        sd_bus_message_read_basic(message, 's', &name);
        sd_bus_message_peek_type(message, nullptr, &contents);
        if (std::strcmp(name, "fanCount") == 0 && std::strcmp(contents, "y") == 0)
        {
            sd_bus_message_enter_container(message, 'v', "y");
            sd_bus_message_read_basic(message, 'y', &static_cast<Plain*>(user)->fanCount);
            sd_bus_message_exit_container(message);
        }
        else
        {
            sd_bus_message_skip(message, "v");
        }
        sd_bus_message_exit_container(message);
    }
    ++received;
    return 0;
}

int OnOther(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

void AddByHand(sd_bus* bus, long number)
{
    auto* plain = new Plain;
    const std::string path = "path='" + PathOf(number) + "',";
    const std::string rules[] = {
        "type='signal',member='PropertiesChanged'," + path +
            "interface='org.freedesktop.DBus.Properties',",
        "type='signal',member='InterfacesAdded'," + path,
        "type='signal',member='InterfacesRemoved'," + path,
    };
    for (int i = 0; i < 3; ++i)
    {
        Check(sd_bus_add_match(bus, &plain->slots[i], rules[i].c_str(),
                               i == 0 ? OnChanged : OnOther, plain),
              "sd_bus_add_match");
    }
}

size_t Heap()
{
    return mallinfo2().uordblks;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::fprintf(stderr, "usage: %s floor|library OBJECTS SIGNALS\n", argv[0]);
        return 2;
    }
    const bool byHand = std::strcmp(argv[1], "floor") == 0;
    const long objects = std::atol(argv[2]);
    const long count = std::atol(argv[3]);
    int go[2];
    Check(pipe(go), "pipe");
    const pid_t child = fork();
    if (child == 0)
    {
        Emit(go[0], objects, count);
    }
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    const auto add = [&](long number)
    {
        if (byHand)
        {
            AddByHand(bus, number);
        }
        else
        {
            Fans::Create(
                PathOf(number), "no.such.service",
                [](Fans*, void*)
                {
                    ++received;
                },
                nullptr, true);
        }
        while (sd_bus_process(bus, nullptr) > 0)
        {
        }
    };
    // Buffers and tables of the connection itself come with the first object.
    add(objects);
    const size_t before = Heap();
    for (long i = 0; i < objects; ++i)
    {
        add(i);
    }
    const size_t each = (Heap() - before) / static_cast<size_t>(objects);
    Check(write(go[1], "", 1) == 1 ? 0 : -EIO, "go");
    while (received < count)
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
    std::printf("%s: %ld objects, %zu bytes of heap each, %ld signals\n", argv[1], objects, each,
                received);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return 0;
}
