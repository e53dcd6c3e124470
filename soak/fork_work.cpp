// Children are forked at any moment; each does one thing with what it inherited and says by its
// status whether that went well.

#include "sanitizer.hpp"
#include "work.hpp"

#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <threadfunnel.hpp>
#include <unistd.h>
#include <yetanotherthreadpool.hpp>

#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

namespace soak
{
namespace
{

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;

constexpr unsigned int childSeconds = 120;

bool PostsRun()
{
    bool registered = true;
    bool tidValid = false;
    pthread_t tid{};
    OneWayChannel_IsRegistered(&registered, &tidValid, &tid);
    size_t ran = 0;
    const auto count = [&] { ++ran; };
    if (registered || test::Post(count) != 3)
    {
        return false;
    }
    test::PollLoop loop;
    return loop.Register(nullptr) == 0 && test::Post(count) == 0 &&
           loop.Run([&] { return ran == 1; });
}

bool SendsRun()
{
    bool ran = false;
    std::function<void()> item = [&] { ran = true; };
    TF_init_and_send_work(item);
    return ran;
}

// What a child may do, in the order of the exit statuses of its failures.
int UseInChild(Scene& scene)
{
    scene.objects.ReleaseAll();
    scene.world.Disconnect(true);
    const Place& fans = scene.objects.Fans();
    sd_bus* own = nullptr;
    if (sd_bus_default_system(&own) < 0)
    {
        return 1;
    }
    if (!ReadDirectly(fans))
    {
        return 2;
    }
    if (!Fans(fans.path, fans.service).Ready())
    {
        return 3;
    }
    sd_bus_flush_close_unref(own);
    if (!PostsRun())
    {
        return 4;
    }
    // ThreadSanitizer does not let a forked child start threads.
    return test::threadSanitizer || SendsRun() ? 0 : 5;
}

[[noreturn]] void Child(Scene& scene)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::signal(SIGALRM, SIG_DFL);
    alarm(childSeconds);
    int failed = 6;
    try
    {
        failed = UseInChild(scene);
    }
    catch (const std::exception&)
    {
    }
    if (failed == 0)
    {
        // What only the parent's other threads refer to is lost here: valgrind must not count that.
        execl("/bin/true", "true", nullptr);
    }
    _exit(failed);
}

void AwaitChild(World& world, pid_t child)
{
    int status = 0;
    world.Wait("a child has ended", [&] { return waitpid(child, &status, WNOHANG) == child; });
    Require(WIFEXITED(status) && WEXITSTATUS(status) == 0,
            WIFEXITED(status) ? "a child failed in its step " + std::to_string(WEXITSTATUS(status))
                              : "a child was ended by signal " + std::to_string(WTERMSIG(status)));
}

// While other threads post, send, run tasks and allocate.
void Fork(Scene& scene)
{
    scene.world.StartAllServices();
    std::atomic<bool> enough = false;
    std::atomic<size_t> done = 0;
    const auto busy = [&]
    {
        std::function<void()> item = [&] { ++done; };
        while (!enough)
        {
            TF_init_and_send_work(item);
            test::Post(item);
        }
    };
    {
        YetAnotherThreadPool pool(1);
        pool.enqueue(busy);
        const std::jthread thread(busy);
        const pid_t child = fork();
        if (child == 0)
        {
            Child(scene);
        }
        enough = true;
        Require(child > 0, "no child could be made");
        AwaitChild(scene.world, child);
    }
    scene.world.Turn();
}

} // namespace

std::vector<Operation> ForkOperations()
{
    if (test::addressSanitizer)
    {
        std::cout << "no forks: AddressSanitizer's allocator does not survive the fork of busy "
                     "threads"
                  << std::endl;
        return {};
    }
    return {{"forks", 15, Fork}};
}

} // namespace soak
