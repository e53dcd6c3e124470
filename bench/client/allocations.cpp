// What one asynchronous call allocates with operator new: the library's part and the caller's, not
// the message, which libsystemd makes with malloc. The service runs in a process of its own. Prints
// allocations and bytes of each call; of a completion's without the completion itself.
//
//   bench-allocations completion|coroutine COUNT

#include "contender.hpp"
#include "fans.hpp"
#include "service.hpp"

#include <bmcbus/task.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <new>

using Fans = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

namespace
{

using namespace bench;
using namespace bench::fans;

size_t allocations = 0;
size_t bytes = 0;

const std::string fan = "Fan1";

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

// Gives the bytes that belong to the caller.
size_t WithCompletions(sd_bus* bus, Fans& object, long count)
{
    long left = 1;
    const auto completion = [&left](const bmcbus::Result<int32_t>& status)
    {
        Check(status == 0, "status");
        --left;
    };
    for (long i = 0; i < count; ++i, left = 1)
    {
        object.Async_updateFanPWMData(fan, 40, completion).Detach();
        Process(bus, left);
    }
    return sizeof(completion);
}

bmcbus::Task<> Await(Fans& object, long& left)
{
    while (left > 0)
    {
        const auto status = co_await object.Async_updateFanPWMData(fan, 40);
        Check(status == 0, "status");
        --left;
    }
}

// The frame, which is one for all, is counted.
size_t InACoroutine(sd_bus* bus, Fans& object, long count)
{
    Await(object, count).Detach();
    Process(bus, count);
    return 0;
}

} // namespace

// Inlined, g++ takes them for a mismatch.
[[gnu::noinline]] void* operator new(size_t size)
{
    ++allocations;
    bytes += size;
    void* const memory = std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        static_cast<void>(std::fprintf(stderr, "usage: %s WHAT COUNT\n", argv[0]));
        return 2;
    }
    const auto work = argv[1] == std::string("completion") ? WithCompletions : InACoroutine;
    const long count = std::stol(argv[2]);
    const ServiceProcess process;
    sd_bus* bus = nullptr;
    Check(sd_bus_default_system(&bus), "sd_bus_default_system");
    {
        Fans object(bus, service, path);
        work(bus, object, 1); // what a connection keeps
        allocations = bytes = 0;
        const size_t own = work(bus, object, count);
        const double calls = static_cast<double>(count);
        std::printf("%.3f %.1f\n", static_cast<double>(allocations) / calls,
                    static_cast<double>(bytes) / calls - static_cast<double>(own));
    }
    sd_bus_unref(bus);
    return 0;
}
