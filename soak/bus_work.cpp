// Work on the bus: each function does one thing of the table at the end, which says how often.

#include "classes.hpp"
#include "work.hpp"

#include <async_ops.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
#include <object_mapper.hpp>
#include <qzlog_via_dbus.hpp>

#include <memory>
#include <thread>

namespace soak
{
namespace
{

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using DirectFans = ClientEdge::com::tamm::bmc::Thermal::FanReporting;

constexpr const char* fanInterface = "com.tamm.bmc.Thermal.FanReporting";

size_t openQuestions = 0;

bmcbus::Bus BusOf(World& world)
{
    return bmcbus::Bus(sd_bus_ref(world.Connection()), std::false_type());
}

void Create(Scene& scene)
{
    scene.objects.Create();
}

void Release(Scene& scene)
{
    scene.objects.Release();
}

void CreateForOneSignal(Scene& scene)
{
    scene.objects.CreateForOneSignal();
}

void CreateAndRelease(Scene& scene)
{
    scene.objects.CreateAndRelease();
}

void Step(Scene& scene)
{
    scene.world.Control("Step");
}

void Announce(Scene& scene)
{
    scene.objects.AnnounceLossAndReturn();
}

void CallDirectly(Scene& scene)
{
    const Place& fans = scene.objects.Fans();
    if (scene.world.Up(fans.service))
    {
        Require(ReadDirectly(fans), "a direct call failed");
    }
}

void AskMapper(Scene& scene)
{
    ++openQuestions;
    ObjectMapper::Wrappers::GetObjectAsync(
        scene.objects.Fans().path, {},
        [](bool, ObjectMapper::Wrappers::ServiceMap&, void*) { --openQuestions; }, nullptr);
}

void AskObject(Scene& scene)
{
    const Place& fans = scene.objects.Fans();
    bmcbus::Bus bus = BusOf(scene.world);
    ++openQuestions;
    Async::Ops::GetAllProperties<Fans::Variant>(
        bus, fans.service, fans.path, fanInterface,
        [](bool, std::map<std::string, Fans::Variant>&, void*) { --openQuestions; }, nullptr);
}

void FileEvent(Scene& scene)
{
    bmcbus::Bus bus = BusOf(scene.world);
    QZLogViaDbus::Log(bus, 12, 3, 1, "FAN0001");
}

// One of the services goes, or comes back.
template <void (World::*go)(const std::string&)>
void Toggle(Scene& scene)
{
    std::vector<std::string> services = scene.objects.Services();
    const std::string service = scene.random.From(services);
    if (scene.world.Up(service))
    {
        (scene.world.*go)(service);
    }
    else
    {
        scene.world.StartService(service);
    }
}

void KillServices(Scene& scene)
{
    AskMapper(scene); // nobody answers that
    AskObject(scene);
    scene.world.KillServices();
    AwaitAnswers(scene.world);
}

// Everything that can be pending is pending. What was on the connection is dead: its values can
// still be read, and calls fail at once.
void RestartBus(Scene& scene)
{
    World& world = scene.world;
    const Place& fans = scene.objects.Fans();
    world.StartAllServices();
    world.Control("AnswerLate", {fans.service, "Get", uint32_t{20}});
    std::jthread waiting([&] { ReadDirectly(fans); });
    scene.objects.CreateAndRelease();
    AskMapper(scene);
    AskObject(scene);
    world.KillBus();
    waiting.join();
    scene.objects.ReadSome();
    Require(!ReadDirectly(fans), "a direct call without a bus gave a value");
    Require(!Fans(fans.path, fans.service).Ready(), "a proxy without a bus is ready");
    scene.objects.ReleaseAll();
    ForgetQuestions();
    world.RestartBus();
}

} // namespace

void AwaitAnswers(World& world)
{
    world.Wait("all questions are answered", [] { return openQuestions == 0; });
}

void ForgetQuestions()
{
    openQuestions = 0;
}

bool ReadDirectly(const Place& fans)
{
    DirectFans direct(fans.service, fans.path);
    bool ok = false;
    uint8_t count = 0;
    direct.Get_fanCount(ok, count);
    return ok;
}

std::vector<Operation> BusOperations()
{
    return {
        {"creations", 200, Create},
        {"releases", 160, Release},
        {"objects for one signal", 20, CreateForOneSignal},
        {"releases before the answer", 10, CreateAndRelease},
        {"steps", 60, Step},
        {"losses and returns", 15, Announce},
        {"direct calls", 60, CallDirectly},
        {"questions to the mapper", 20, AskMapper},
        {"questions to objects", 20, AskObject},
        {"log entries", 5, FileEvent},
        {"service stops and starts", 8, Toggle<&World::StopService>},
        {"service crashes and starts", 8, Toggle<&World::CrashService>},
        {"SIGKILLs of the services", 2, KillServices},
        {"bus restarts", 1, RestartBus},
    };
}

} // namespace soak
