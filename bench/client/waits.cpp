// How long calls with results take that have to wait, in wall time; the library alone.
//
//   bench-waits library parallel COUNT     100 calls at once to a service that takes 10 ms for each
//   bench-waits library late-LOOP COUNT    calls of 10 ms to a service that is silent; LOOP is
//                                          sd-event, poll or process
//
// asio and zloop watch the same descriptor as poll.

#include "contender.hpp"
#include "fans.hpp"
#include "service.hpp"

#include <bmcbus/dispatcher.hpp>
#include <bmcbus/request.hpp>
#include <cost.hpp>
#include <poll.h>
#include <systemd/sd-event.h>

#include <vector>

namespace
{

using namespace bench;
using namespace std::chrono_literals;
using bmcbus::Request;
using bmcbus::Result;

// Returns when `left` is zero.
using Loop = std::function<void(const long& left)>;

void Process(sd_bus* bus, const long& left)
{
    while (left > 0)
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, UINT64_MAX);
        }
    }
}

Loop MakeLoop(const std::string& kind, sd_bus* bus)
{
    if (kind == "sd-event")
    {
        sd_event* loop = nullptr;
        Check(sd_event_default(&loop), "sd_event_default");
        Check(sd_bus_attach_event(bus, loop, 0), "sd_bus_attach_event");
        return [loop](const long& left)
        {
            while (left > 0)
            {
                Check(sd_event_run(loop, UINT64_MAX), "sd_event_run");
            }
        };
    }
    if (kind == "poll")
    {
        return [dispatcher = std::make_shared<bmcbus::Dispatcher>(bus)](const long& left)
        {
            pollfd watched{.fd = dispatcher->Descriptor(), .events = POLLIN, .revents = 0};
            while (left > 0)
            {
                poll(&watched, 1, -1);
                Check(dispatcher->Dispatch(), "Dispatch");
            }
        };
    }
    return [bus](const long& left) { Process(bus, left); };
}

void TimeOut(sd_bus* bus, const Loop& loop)
{
    long left = 1;
    Request(bus, fans::service, fans::path, fans::interface, "neverAnswer")
        .Async(
            [&](const Result<void>& result)
            {
                Check(!result && result.error().kind == bmcbus::CallFailure::Timeout, "timeout");
                --left;
            },
            {.timeout = 10ms})
        .Detach();
    loop(left);
}

void Parallel(sd_bus* bus, const Loop& loop)
{
    long left = 100;
    for (long i = left; i > 0; --i)
    {
        Request(bus, fans::service, fans::path, fans::interface, "answerIn10ms")
            .Async(
                [&](const Result<void>& result)
                {
                    Check(result.has_value(), "result");
                    --left;
                })
            .Detach();
    }
    loop(left);
}

} // namespace

int main(int argc, char** argv)
{
    const Arguments arguments(argc, argv);
    const std::string& what = arguments.what;
    const bool parallel = what == "parallel";
    const ServiceProcess process;
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    {
        const Loop loop = MakeLoop(parallel ? "process" : what.substr(what.find('-') + 1), bus);
        const auto work = parallel ? Parallel : TimeOut;
        work(bus, loop);
        const Stopwatch stopwatch;
        for (long i = 0; i < arguments.count; ++i)
        {
            work(bus, loop);
        }
        stopwatch.Print(arguments.count);
    }
    sd_bus_detach_event(bus);
    sd_bus_unref(bus);
    return 0;
}
