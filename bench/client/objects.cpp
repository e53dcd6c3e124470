// Many objects on one connection: the heap that each takes, and what a small PropertiesChanged
// costs when it goes to one of them in turn. The hand-written contender installs the same three
// match rules per object. One contender per process.

#include "fans.hpp"

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;

namespace
{

using namespace bench;
using namespace bench::fans;

long received = 0;

// Of the same length for every number, so that all messages are the same work.
std::string PathOf(long number)
{
    const std::string digits = std::to_string(number);
    return "/com/example/fans/" + std::string(6 - digits.size(), '0') + digits;
}

// Emits `count` signals to `objects` paths in turn, once told to, says when the daemon has them
// all, and waits to be killed.
[[noreturn]] void Emit(int go, int done, long objects, long count)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char byte = 0;
    Check(read(go, &byte, 1) == 1, "go");
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
    Check(sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                             nullptr, nullptr, ""),
          "GetId");
    Check(write(done, "", 1) == 1, "done");
    while (true)
    {
        pause();
    }
}

void Count()
{
    ++received;
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
    const long objects = std::stol(argv[2]);
    const long count = std::stol(argv[3]);
    int go[2];
    int done[2];
    Check(pipe(go), "pipe");
    Check(pipe(done), "pipe");
    const pid_t child = fork();
    if (child == 0)
    {
        Emit(go[0], done[1], objects, count);
    }
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    const auto add = [&](long number)
    {
        if (byHand)
        {
            static_cast<void>(new Plain(bus, PathOf(number), Count));
        }
        else
        {
            Fans::Create(
                PathOf(number), "no.such.service", [](Fans*, void*) { Count(); }, nullptr, true);
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
    Check(write(go[1], "", 1) == 1, "go");
    // How often the queue is found empty would be chance.
    char byte = 0;
    Check(read(done[0], &byte, 1) == 1, "done");
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
