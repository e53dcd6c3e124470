// Calls with results, 20 in flight at a time, against the same by hand on sd-bus: a method that
// takes a text and a byte and gives a number. The service runs in a process of its own.
//
//   bench-results library|floor|sdbus-c++|gdbus WHAT COUNT
//
//   async        sd_bus_call_async with a handler; the library's form with a completion
//   frames       a coroutine for each call, against the form with a completion
//   frame        a coroutine that makes call after call, against the same
//   try          sd_bus_call with signals blocked around it; the blocking form

#include "contender.hpp"
#include "fans.hpp"
#include "in_flight.hpp"
#include "service.hpp"

#include <bmcbus/task.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <cost.hpp>

#include <csignal>

using Fans = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

namespace
{

using namespace bench;
using namespace bench::fans;

constexpr long inFlight = InFlight::together;
constexpr uint8_t pwm = 40;

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

sd_bus_message* NewUpdate(sd_bus* bus)
{
    sd_bus_message* call = nullptr;
    Check(sd_bus_message_new_method_call(bus, &call, service, path, interface, "updateFanPWMData"),
          "new call");
    sd_bus_message_append_basic(call, 's', "Fan1");
    sd_bus_message_append_basic(call, 'y', &pwm);
    return call;
}

// By hand.

struct Plain
{
    sd_bus* bus;
    long toSend;
    long left;

    void Send()
    {
        --toSend;
        sd_bus_message* call = NewUpdate(bus);
        Check(sd_bus_call_async(bus, nullptr, call, OnReply, this, 0), "call");
        sd_bus_message_unref(call);
    }
    static int OnReply(sd_bus_message* reply, void* self, sd_bus_error*)
    {
        auto& plain = *static_cast<Plain*>(self);
        int32_t status = -1;
        Check(sd_bus_message_is_method_error(reply, nullptr) == 0, "reply");
        Check(sd_bus_message_read_basic(reply, 'i', &status), "read");
        Check(status == 0, "status");
        --plain.left;
        if (plain.toSend > 0)
        {
            plain.Send();
        }
        return 1;
    }
};

void AsyncByHand(sd_bus* bus, long count)
{
    Plain plain{bus, count, count};
    for (long i = 0; i < inFlight; ++i)
    {
        plain.Send();
    }
    Process(bus, plain.left);
}

void TryByHand(sd_bus* bus, long count)
{
    for (long i = 0; i < count; ++i)
    {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        sd_bus_message* call = NewUpdate(bus);
        Check(sd_bus_call(bus, call, 0, &error, &reply), "call");
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        int32_t status = -1;
        Check(sd_bus_message_read_basic(reply, 'i', &status), "read");
        Check(status == 0, "status");
        sd_bus_message_unref(reply);
        sd_bus_message_unref(call);
        sd_bus_error_free(&error);
    }
}

// The library.

const std::string fan = "Fan1";

struct Sender
{
    Fans& object;
    long toSend;
    long left;

    void Send()
    {
        --toSend;
        object
            .Async_updateFanPWMData(fan, pwm,
                                    [this](const bmcbus::Result<int32_t>& status)
                                    {
                                        Check(status == 0, "status");
                                        --left;
                                        if (toSend > 0)
                                        {
                                            Send();
                                        }
                                    })
            .Detach();
    }
};

void Async(sd_bus* bus, long count)
{
    Fans object(bus, service, path);
    Sender sender{object, count, count};
    for (long i = 0; i < inFlight; ++i)
    {
        sender.Send();
    }
    Process(bus, sender.left);
}

struct Frames
{
    Fans& object;
    long toSend;
    long left;

    bmcbus::Task<> Send()
    {
        --toSend;
        const auto status = co_await object.Async_updateFanPWMData(fan, pwm);
        Check(status == 0, "status");
        --left;
        if (toSend > 0)
        {
            Send().Detach();
        }
    }
    bmcbus::Task<> SendAll()
    {
        while (toSend > 0)
        {
            --toSend;
            const auto status = co_await object.Async_updateFanPWMData(fan, pwm);
            Check(status == 0, "status");
            --left;
        }
    }
};

void InFrames(sd_bus* bus, long count, bmcbus::Task<> (Frames::*send)())
{
    Fans object(bus, service, path);
    Frames frames{object, count, count};
    for (long i = 0; i < inFlight; ++i)
    {
        (frames.*send)().Detach();
    }
    Process(bus, frames.left);
}

void Try(sd_bus* bus, long count)
{
    Fans object(bus, service, path);
    for (long i = 0; i < count; ++i)
    {
        Check(object.Try_updateFanPWMData(fan, pwm) == 0, "status");
    }
}

void Run(const std::string& who, const std::string& what, sd_bus* bus, long count)
{
    const bool library = who == "library";
    if (!library && who != "floor")
    {
        what == "async" ? PeerCalls(who, count) : std::exit(notBuiltIn);
    }
    else if (what == "try")
    {
        (library ? Try : TryByHand)(bus, count);
    }
    else if (what == "async")
    {
        (library ? Async : AsyncByHand)(bus, count);
    }
    else if (!library)
    {
        Async(bus, count);
    }
    else
    {
        InFrames(bus, count, what == "frames" ? &Frames::Send : &Frames::SendAll);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const Arguments arguments(argc, argv);
    const ServiceProcess process;
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    Run(arguments.who, arguments.what, bus, inFlight);
    const Stopwatch stopwatch;
    Run(arguments.who, arguments.what, bus, arguments.count);
    stopwatch.Print(arguments.count);
    sd_bus_unref(bus);
    return 0;
}
