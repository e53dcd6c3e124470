// Live objects against the same work by hand, and against cached proxies: what a signal costs, what
// it takes to set many objects up, and the heap that each keeps.
//
//   bench-live floor|cached|live signals|setup|unmanaged OBJECTS COUNT
//
// `signals`: COUNT signals go to OBJECTS objects in turn. `setup`: OBJECTS of COUNT objects of a
// service with an object manager are followed; `unmanaged`: of one without. The service is a
// process of its own. `floor` is one path rule by hand for each object.

#include "client/fans.hpp"

#include <bmcbus/live.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <vector>

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;

namespace
{

using namespace bench;
using namespace bench::fans;

constexpr const char* root = "/com/example/fans";

// Of the same length for every number, so that all messages are the same work.
std::string PathOf(long number)
{
    const std::string digits = std::to_string(number);
    return std::string(root) + "/" + std::string(6 - digits.size(), '0') + digits;
}

// The service.

struct Served
{
    long objects;
    bool managed;
};

void AppendValues(sd_bus_message* reply)
{
    Check(
        sd_bus_message_append(reply, "a{sv}", 2, "fanCount", "y", 1, "fanPWMData", "a{s(yyyb)}", 0),
        "append");
}

void AppendObjects(sd_bus_message* reply, long objects)
{
    sd_bus_message_open_container(reply, 'a', "{oa{sa{sv}}}");
    for (long i = 0; i < objects; ++i)
    {
        sd_bus_message_open_container(reply, 'e', "oa{sa{sv}}");
        sd_bus_message_append(reply, "o", PathOf(i).c_str());
        sd_bus_message_open_container(reply, 'a', "{sa{sv}}");
        sd_bus_message_open_container(reply, 'e', "sa{sv}");
        sd_bus_message_append(reply, "s", interface);
        AppendValues(reply);
        sd_bus_message_close_container(reply);
        sd_bus_message_close_container(reply);
        sd_bus_message_close_container(reply);
    }
    Check(sd_bus_message_close_container(reply), "close");
}

void Emit(sd_bus* bus, sd_bus_message* call)
{
    int64_t objects = 0;
    int64_t count = 0;
    Check(sd_bus_message_read(call, "xx", &objects, &count), "read");
    static int64_t emitted = 0;
    for (int64_t i = 0; i < count; ++i, ++emitted)
    {
        // Another value than the object's last one, for all numbers of objects that are measured.
        Check(sd_bus_emit_signal(bus, PathOf(i % objects).c_str(), propertiesInterface,
                                 "PropertiesChanged", "sa{sv}as", interface, 1, "fanCount", "y",
                                 static_cast<int>(2 + emitted % 199), 0),
              "emit");
        // The queue towards the daemon is finite.
        Check(i % 500 == 499 ? sd_bus_flush(bus) : 0, "flush");
    }
}

int Serve(sd_bus_message* call, void* data, sd_bus_error*)
{
    const auto& served = *static_cast<const Served*>(data);
    sd_bus* const bus = sd_bus_message_get_bus(call);
    sd_bus_message* reply = nullptr;
    const auto is = [&](const char* member)
    { return sd_bus_message_is_method_call(call, nullptr, member) > 0; };
    if (is("GetAll") || is("Emit") ||
        (is("GetManagedObjects") && served.managed &&
         std::strcmp(sd_bus_message_get_path(call), root) == 0))
    {
        Check(sd_bus_message_new_method_return(call, &reply), "new reply");
        if (is("GetAll"))
        {
            AppendValues(reply);
        }
        else if (is("Emit"))
        {
            Emit(bus, call);
        }
        else
        {
            AppendObjects(reply, served.objects);
        }
        Check(sd_bus_send(bus, reply, nullptr), "send");
        sd_bus_message_unref(reply);
        return 1;
    }
    return 0; // sd-bus refuses what nobody knows
}

[[noreturn]] void RunService(Served served, int ready)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "sd_bus_open_system");
    Check(sd_bus_add_filter(bus, nullptr, Serve, &served), "sd_bus_add_filter");
    Check(sd_bus_request_name(bus, service, 0), "sd_bus_request_name");
    Check(write(ready, "", 1) == 1, "ready");
    while (true)
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

class Service
{
  public:
    Service(long objects, bool managed)
    {
        int ready[2];
        Check(pipe(ready), "pipe");
        child = fork();
        if (child == 0)
        {
            RunService({objects, managed}, ready[1]);
        }
        char byte = 0;
        Check(read(ready[0], &byte, 1) == 1, "ready");
        Check(sd_bus_open_system(&control), "sd_bus_open_system");
        // Under a tool that counts, the daemon takes its time.
        sd_bus_set_method_call_timeout(control, 3600'000'000ULL);
    }
    ~Service()
    {
        sd_bus_flush_close_unref(control);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Returns when the daemon has all signals. On a connection of its own.
    void Emit(long objects, long count)
    {
        Check(sd_bus_call_method(control, service, root, "com.example.Bench", "Emit", nullptr,
                                 nullptr, "xx", static_cast<int64_t>(objects),
                                 static_cast<int64_t>(count)),
              "Emit");
    }

  private:
    pid_t child = 0;
    sd_bus* control = nullptr;
};

// The client.

long received = 0;
long arrived = 0; // messages of any kind

int OnMessage(sd_bus_message*, void*, sd_bus_error*)
{
    ++arrived;
    return 0;
}

void Count()
{
    ++received;
}

void ProcessUntil(sd_bus* bus, const std::function<bool()>& done)
{
    while (!done())
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, 100'000);
        }
    }
}

// How many messages the connection has sent.
uint64_t Sent(sd_bus* bus)
{
    sd_bus_message* signal = nullptr;
    uint64_t cookie = 0;
    Check(sd_bus_message_new_signal(bus, &signal, "/", "com.example.Bench", "Cookie"), "signal");
    Check(sd_bus_send(bus, signal, &cookie), "send");
    sd_bus_message_unref(signal);
    return cookie;
}

struct Client
{
    std::string who;
    sd_bus* bus;
    std::vector<bmcbus::Live<Fans>> lives;

    void Follow(long objects)
    {
        for (long i = 0; i < objects; ++i)
        {
            if (who == "live")
            {
                lives.emplace_back(
                    bus, PathOf(i),
                    bmcbus::LiveOptions<Fans>{.service = service,
                                              .on_change = [](Fans&, const bmcbus::Changes&)
                                              { Count(); }});
            }
            else if (who == "cached")
            {
                Fans::Create(
                    PathOf(i), service, [](Fans*, void*) { Count(); }, nullptr, false);
            }
            else
            {
                static_cast<void>(new Plain(bus, PathOf(i), Count));
            }
        }
        ProcessUntil(bus,
                     [&]
                     {
                         return std::ranges::all_of(
                             lives, [](const auto& live)
                             { return live.State() == bmcbus::LiveState::Live; });
                     });
    }
};

void Signals(Client& client, long objects, long count)
{
    Service bench(objects, true);
    client.Follow(objects);
    bench.Emit(objects, 1); // rules that change have changed
    ProcessUntil(client.bus, [&] { return received > 0; });
    received = 0;
    bench.Emit(objects, count);
    ProcessUntil(client.bus, [&] { return received >= count; });
    std::printf("%ld\n", received);
    client.lives.clear();
}

// Milliseconds, messages, bytes of heap for each object.
void SetUp(Client& client, long objects, long of, bool managed)
{
    const Service bench(of, managed);
    sd_bus_add_filter(client.bus, nullptr, OnMessage, nullptr);
    received = 0;
    client.lives.reserve(static_cast<size_t>(objects));
    const uint64_t sent = Sent(client.bus);
    const size_t heap = mallinfo2().uordblks;
    const auto begin = std::chrono::steady_clock::now();
    arrived = 0;
    client.Follow(objects);
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    // sd-bus shows no replies to filters; each call has one.
    const auto messages = 2 * static_cast<long>(Sent(client.bus) - sent - 1) + arrived;
    std::printf("%.3f %ld %ld\n", time.count(), messages,
                static_cast<long>(mallinfo2().uordblks - heap) / objects);
    client.lives.clear();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::fprintf(stderr, "usage: %s floor|cached|live signals|setup|unmanaged OBJECTS COUNT\n",
                     argv[0]);
        return 2;
    }
    const std::string what = argv[2];
    const long objects = std::stol(argv[3]);
    const long count = std::stol(argv[4]);
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    Client client{argv[1], bus, {}};
    if (what == "signals")
    {
        Signals(client, objects, count);
    }
    else
    {
        SetUp(client, objects, count, what == "setup");
    }
    Fans::Cleanup();
    return 0;
}
