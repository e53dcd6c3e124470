// The service that all rows talk to. It answers with as little work as it can, at once or after a
// time that the call names.

#include "service.hpp"

#include "fans.hpp"

#include <csignal>
#include <ctime>
#include <deque>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench
{
namespace
{

using namespace fans;

int Update(sd_bus_message* call, void*, sd_bus_error*)
{
    return sd_bus_reply_method_return(call, "i", 0);
}

int Count(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
          sd_bus_error*)
{
    return sd_bus_message_append(reply, "y", fans::present);
}

// Calls that are answered later, in the order of their times, which is that of their arrival.
struct Waiting
{
    uint64_t until;
    sd_bus_message* call;
};
std::deque<Waiting> waiting;

uint64_t Now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1'000;
}

int AnswerLater(sd_bus_message* call, void*, sd_bus_error*)
{
    waiting.push_back({Now() + 10'000, sd_bus_message_ref(call)});
    return 1;
}

int NeverAnswer(sd_bus_message*, void*, sd_bus_error*)
{
    return 1;
}

// Answers what is due; how long the next one waits.
uint64_t AnswerWaiting()
{
    for (; !waiting.empty(); waiting.pop_front())
    {
        const uint64_t now = Now();
        if (waiting.front().until > now)
        {
            return waiting.front().until - now;
        }
        sd_bus_reply_method_return(waiting.front().call, nullptr);
        sd_bus_message_unref(waiting.front().call);
    }
    return UINT64_MAX;
}

// Runs until its parent is gone.
[[noreturn]] void Serve(int ready)
{
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("updateFanPWMData", "sy", "i", Update, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("answerIn10ms", "", "", AnswerLater, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("neverAnswer", "", "", NeverAnswer, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("fanCount", "y", Count, 0, 0),
        SD_BUS_VTABLE_END,
    };
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "sd_bus_open_system");
    Check(sd_bus_add_object_vtable(bus, nullptr, path, interface, table, nullptr), "vtable");
    Check(sd_bus_request_name(bus, service, 0), "sd_bus_request_name");
    Check(write(ready, "", 1) == 1, "write");
    while (true)
    {
        if (sd_bus_process(bus, nullptr) == 0)
        {
            sd_bus_wait(bus, AnswerWaiting());
        }
    }
}

} // namespace

ServiceProcess::ServiceProcess()
{
    int ready[2];
    Check(pipe(ready), "pipe");
    child = fork();
    if (child == 0)
    {
        Serve(ready[1]);
    }
    char byte = 0;
    Check(read(ready[0], &byte, 1) == 1, "service");
    close(ready[0]);
    close(ready[1]);
}

ServiceProcess::~ServiceProcess()
{
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

} // namespace bench
