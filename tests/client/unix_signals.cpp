// Caught UNIX signals while a thread waits inside the library, in each kind of loop: nothing fails
// because of them, nothing is sent twice, and the handlers run when the wait is over.

#include "bus_loops.hpp"
#include "fixture.hpp"

#include <object_mapper.hpp>

#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <memory>
#include <thread>

namespace
{

constexpr int caught[] = {SIGCHLD, SIGHUP, SIGTERM, SIGUSR1};

std::atomic<int> handled;

// Whether the thread sleeps in the kernel.
bool Sleeps(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(file), {}};
    const size_t name = line.rfind(')');
    return name != std::string::npos && line.compare(name, 4, ") S ") == 0;
}

template <class Loop>
class UnixSignals : public ClientTest
{
  protected:
    UnixSignals()
    {
        struct sigaction action = {};
        // What a thread sent; of a stopped child an emulator tells in spite of SA_NOCLDSTOP.
        action.sa_sigaction = [](int, siginfo_t* info, void*)
        { handled += info->si_code == SI_TKILL; };
        action.sa_flags = SA_RESTART | SA_NOCLDSTOP | SA_SIGINFO;
        for (const int number : caught)
        {
            struct sigaction old = {};
            EXPECT_EQ(sigaction(number, &action, &old), 0);
            before.push_back(old);
        }
    }
    ~UnixSignals() override
    {
        auto old = before.begin();
        for (const int number : caught)
        {
            sigaction(number, &*old++, nullptr);
        }
    }

  public: // for a callback
    // Does the work while another thread sends signals to this one as soon as it waits for the bus,
    // and the bus stands still until they have been sent.
    template <class Work>
    void Disturb(Work work)
    {
        handled = 0;
        const pthread_t self = pthread_self();
        const auto tid = static_cast<pid_t>(syscall(SYS_gettid));
        EXPECT_EQ(kill(DaemonPid(), SIGSTOP), 0);
        std::thread other(
            [&]
            {
                EXPECT_TRUE(kit::Until([&] { return Sleeps(tid); }));
                for (const int number : caught)
                {
                    EXPECT_EQ(pthread_kill(self, number), 0);
                }
                EXPECT_EQ(kill(DaemonPid(), SIGCONT), 0);
            });
        work();
        other.join();
        EXPECT_EQ(handled, static_cast<int>(std::size(caught))) << "handled when the wait was over";
    }

  protected:
    pid_t DaemonPid()
    {
        if (daemon == 0)
        {
            sd_bus_message* reply = nullptr;
            EXPECT_GE(sd_bus_call_method(connection, "org.freedesktop.DBus", "/",
                                         "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                         nullptr, &reply, "s", "org.freedesktop.DBus"),
                      0);
            EXPECT_GT(sd_bus_message_read(reply, "u", &daemon), 0);
            sd_bus_message_unref(reply);
        }
        return static_cast<pid_t>(daemon);
    }

    std::vector<struct sigaction> before;
    uint32_t daemon = 0;
    Loop loop{connection};
};

TYPED_TEST_SUITE(UnixSignals, test::AttachedLoops);

TYPED_TEST(UnixSignals, LeaveMatchesFirstReadsAndLookUpsWhole)
{
    this->DaemonPid();
    std::unique_ptr<Fan> reading;
    this->Disturb([&] { reading = std::make_unique<Fan>(fanPath); });
    EXPECT_TRUE(reading->Ready());
    std::unique_ptr<Fan> pending;
    this->Disturb([&] { pending = std::make_unique<Fan>(fanPath, fanService, true); });
    std::unique_ptr<FanSignal> signal;
    this->Disturb([&] { signal = std::make_unique<FanSignal>(fanPath); });
    this->fans->Set("fanCount", 9);
    this->fans->Emit("notifyFanReportingData", uint8_t{3}, twoFans);
    EXPECT_TRUE(this->loop.Run(
        [&] {
            return signal->Ready() && reading->Get_fanCount() == 9 && pending->Get_fanCount() == 9;
        }));
    std::string service;
    this->Disturb(
        [&] { ObjectMapper::Wrappers::PathAndInterfaceToService(fanPath, fanInterface, service); });
    EXPECT_EQ(service, fanService);
}

TYPED_TEST(UnixSignals, LeaveCallsWholeAndSendThemOnce)
{
    this->DaemonPid();
    std::unique_ptr<FanEdge> edge;
    this->Disturb([&] { edge = std::make_unique<FanEdge>("", fanPath); });
    EXPECT_EQ(edge->Service(), fanService);
    bool ok = false;
    uint8_t count = 0;
    this->Disturb([&] { edge->Get_fanCount(ok, count); });
    EXPECT_TRUE(ok);
    int32_t status = 1;
    this->Disturb([&] { edge->Call_updateFanPWMData(ok, "Fan1", 40, status); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(this->fans.Calls("updateFanPWMData").size(), 1U);
}

TYPED_TEST(UnixSignals, LeaveCallsFromHandlersWhole)
{
    this->DaemonPid();
    struct Here
    {
        UnixSignals<TypeParam>& test;
        bool ok = false;
    } here{*this};
    Fan fan(fanPath, fanService);
    fan.AddCallback(
        [](Fan*, void* user_data)
        {
            auto& [test, ok] = *static_cast<Here*>(user_data);
            FanEdge edge(fanService, fanPath);
            uint8_t count = 0;
            test.Disturb([&, &ok = ok] { edge.Get_fanCount(ok, count); });
        },
        &here);
    this->fans->Set("fanCount", 9);
    EXPECT_TRUE(this->loop.Run([&] { return here.ok; }));
}

using UncaughtUnixSignals = ClientTest;

// What nobody catches must not wait for the end of a call.
TEST_F(UncaughtUnixSignals, EndAProcess)
{
    mapper.On("GetObject").NoReply();
    for (const int number : {SIGTERM, SIGALRM, SIGABRT})
    {
        mapper.ClearCalls();
        const pid_t child = fork();
        if (child == 0)
        {
            signal(number, SIG_DFL);
            sd_bus_unref(connection);
            sd_bus_default_system(&connection);
            sd_bus_set_method_call_timeout(connection, 3'600'000'000); // ends no call here
            const FanEdge edge("", fanPath);
            _exit(0);
        }
        EXPECT_TRUE(mapper.WaitForCalls("GetObject"));
        EXPECT_EQ(kill(child, number), 0);
        int status = 0;
        EXPECT_TRUE(kit::Until([&] { return waitpid(child, &status, WNOHANG) == child; }));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << status;
    }
}

} // namespace
