// A random service side against what a live object and a set of them must show.
//
//     BMCBUS_MODEL_STEPS=10000 BMCBUS_MODEL_SEEDS=20 BMCBUS_MODEL_FIRST=1 test-live-model
//
// A script of services, a mapper and a stranger does something at random; the model knows who owns
// which name and which values its objects have. Whenever all is quiet, every handle must show what
// the model says. Callbacks compare what they see with all that has ever been true of one owner.

#include "fixture.hpp"

#include <atomic>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>

namespace
{

int FromEnvironment(const char* name, int otherwise)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : otherwise;
}

const int steps = FromEnvironment("BMCBUS_MODEL_STEPS", 300);
const int seeds = FromEnvironment("BMCBUS_MODEL_SEEDS", 3);
const int firstSeed = FromEnvironment("BMCBUS_MODEL_FIRST", 1);

constexpr int objects = 6;
constexpr int services = 2;
const std::string root = "/com/example/model";

std::string Path(int i)
{
    return root + "/o" + std::to_string(i);
}

std::string ServiceName(int i)
{
    return "com.example.Model" + std::to_string(i);
}

// A state of one moment: the count names the owner's run and the moment, and the fans say the same.
FanMap FanOf(uint8_t count)
{
    return {{"fan", {count, static_cast<uint8_t>(~count), 0, true}}};
}

class Model : public LiveTest
{
  protected:
    struct Object
    {
        bool there = false;
        uint8_t count = 0;
    };
    struct Owner
    {
        std::unique_ptr<kit::FakeService> service;
        std::unique_ptr<kit::FakeService> former;
        std::map<int, Object> objects;
        bool running = false;
    };

    // Objects with an even number belong to service 0, the others to 1.
    static int Home(int object) { return object % services; }

    void Run(unsigned int seed)
    {
        random.seed(seed);
        mapper = std::make_unique<kit::FakeMapper>();
        for (int i = 0; i < services; ++i)
        {
            StartService(i);
        }
        for (int i = 0; i < objects; ++i)
        {
            mapper->Add(Path(i), ServiceName(Home(i)), {fanInterface});
            // Half of the handles know the service, half ask the mapper.
            lives.push_back(Handle(Path(i), i % 4 < 2 ? ServiceName(Home(i)) : ""));
        }
        set.emplace(
            connection, root,
            bmcbus::LiveSetOptions<Fans>{
                .service = ServiceName(0),
                .on_add = [this](Fans& fan) { EXPECT_TRUE(members.insert(fan.Path()).second); },
                .on_remove = [this](Fans& fan) { EXPECT_EQ(members.erase(fan.Path()), 1U); },
                .on_change = [this](Fans& fan, const bmcbus::Changes&) { Check(fan); }});
        std::jthread reader([this](const std::stop_token& end) { Read(end); });
        for (int step = 0; step < steps && !HasFailure(); ++step)
        {
            Step();
            while (!Chance(2) && sd_bus_process(connection, nullptr) >= 0)
            {
            }
            if (Chance(12))
            {
                Quiet();
            }
        }
        Quiet();
        EXPECT_FALSE(HasFailure()) << "seed " << seed;
        reader = {};
        EndBus();
    }

    // Another thread sees no mixture of two moments either.
    void Read(const std::stop_token& end)
    {
        while (!end.stop_requested())
        {
            for (bmcbus::Live<Fans>& live : lives)
            {
                uint8_t count = 0;
                FanMap data;
                live->Get(count, data);
                mixed += data != (count == 0 && data.empty() ? FanMap() : FanOf(count)) ? 1 : 0;
            }
            std::this_thread::yield();
        }
    }

    // The daemon goes: all is lost, and a new connection to its successor starts afresh.
    void EndBus()
    {
        bus.Kill();
        const auto lost = [](const auto& live)
        { return live.State() == LiveState::Lost || live.State() == LiveState::Absent; };
        EXPECT_TRUE(Until([&] { return std::ranges::all_of(lives, lost); }));
        EXPECT_EQ(mixed, 0);
        set.reset();
        lives.clear();
        for (Owner& owner : owners)
        {
            owner = Owner();
        }
        stranger.reset();
        mapper.reset();
        members.clear();
        sd_bus_flush_close_unref(connection);
        bus.Restart();
        EXPECT_GE(sd_bus_default_system(&connection), 0);
    }

  private:
    bool Chance(int of) { return Pick(of) == 0; }
    int Pick(int below) { return static_cast<int>(random() % static_cast<unsigned int>(below)); }

    bmcbus::Live<Fans> Handle(const std::string& path, const std::string& service)
    {
        return {connection,
                path,
                {.service = service,
                 .on_change =
                     [this](Fans& now, const bmcbus::Changes& what)
                 {
                     EXPECT_FALSE(what.empty());
                     EXPECT_TRUE(now.Ready());
                     Check(now);
                 },
                 .on_state =
                     [this](Fans& now, LiveState state)
                 {
                     EXPECT_EQ(now.Ready(), state == LiveState::Live);
                     Check(now);
                 }}};
    }

    // Both values of one moment of one owner, or not all known.
    static void Check(Fans& now)
    {
        bool counted = false;
        bool known = false;
        uint8_t count = 0;
        FanMap data;
        now.Get_fanCount(counted, count);
        now.Get_fanPWMData(known, data);
        if (counted && known)
        {
            EXPECT_EQ(data, FanOf(count)) << now.Path();
        }
    }

    void StartService(int i)
    {
        Owner& owner = owners[i];
        owner.service = std::make_unique<kit::FakeService>(std::vector<std::string>());
        owner.service->Manage(i == 0 ? "/" : "/com/example");
        owner.running = true;
        owner.objects.clear();
        for (int object = 0; object < objects; ++object)
        {
            if (Home(object) == i && !Chance(5))
            {
                Plug(object);
            }
        }
        owner.service->TakeName(ServiceName(i));
    }

    // A successor takes the name; what it takes it from runs on for a while, as a stranger.
    void Replace(int i)
    {
        Owner& owner = owners[i];
        owner.former = std::move(owner.service);
        StartService(i);
        if (Chance(2))
        {
            owner.former.reset();
        }
        else
        {
            owner.former->EmitRaw(Path(i), "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                  {fanInterface, kit::AsPropertyMap({{"fanCount", uint8_t{0}}}),
                                   std::vector<std::string>()});
        }
    }

    // A crash, sometimes with a successor at once; or a successor that does not wait for that.
    void EndService(int i)
    {
        if (Chance(3))
        {
            Replace(i);
            return;
        }
        owners[i].service.reset();
        owners[i].running = false;
        if (Chance(2))
        {
            StartService(i);
        }
    }

    void Plug(int object)
    {
        Owner& owner = owners[Home(object)];
        const uint8_t count = ++last;
        owner.service->AddObject(Path(object), {fanInterface},
                                 {{"fanCount", count}, {"fanPWMData", FanOf(count)}});
        owner.objects[object] = {true, count};
    }

    kit::Object& At(int object) { return owners[Home(object)].service->ObjectAt(Path(object)); }

    void Step()
    {
        const int object = Pick(objects);
        Owner& owner = owners[Home(object)];
        if (!owner.running)
        {
            if (Chance(3))
            {
                StartService(Home(object));
            }
            return;
        }
        if (!owner.objects[object].there)
        {
            if (Chance(2))
            {
                Plug(object);
            }
            return;
        }
        StepOf(object, owner);
    }

    void StepOf(int object, Owner& owner)
    {
        Object& now = owner.objects[object];
        const auto next = static_cast<uint8_t>(last + 1);
        const int what = Pick(16);
        if (what < 6)
        {
            now.count = ++last;
            At(object).Set({{"fanCount", next}, {"fanPWMData", FanOf(next)}});
        }
        else if (what < 8)
        {
            now.count = ++last;
            At(object).SetQuietly({{"fanCount", next}, {"fanPWMData", FanOf(next)}});
            At(object).EmitPropertiesChanged(fanInterface, {}, {"fanCount", "fanPWMData"});
        }
        else if (what == 8)
        {
            owner.service->RemoveObject(Path(object));
            now.there = false;
        }
        else if (what == 9)
        {
            EndService(Home(object));
        }
        else if (what == 10)
        {
            owner.service->On("GetAll").Once().ReplyError("com.example.Error.Busy");
        }
        else if (what == 11)
        {
            owner.service->On("GetAll").Once().Delay(std::chrono::milliseconds(3));
        }
        else if (what == 12)
        {
            At(object).EmitPropertiesChanged(fanInterface, {{"fanCount", "text"}});
        }
        else if (what == 13)
        {
            Stranger(object);
        }
        else if (what == 14)
        {
            owner.service->On("GetAll").Once().Reply(
                {kit::AsPropertyMap({{"fanCount", 1}, {"fanPWMData", 2}})});
        }
        else
        {
            RestartMapper();
        }
    }

    void Stranger(int object)
    {
        if (!stranger)
        {
            stranger = std::make_unique<kit::FakeService>();
            for (int i = 0; i < objects; ++i)
            {
                stranger->AddObject(Path(i), {fanInterface});
            }
        }
        const std::string path = Path(object);
        if (Chance(2))
        {
            stranger->ObjectAt(path).EmitPropertiesChanged(fanInterface, {{"fanCount", uint8_t{0}}},
                                                           {"fanPWMData"});
        }
        else
        {
            stranger->EmitRaw("/", "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                              {kit::Path{path}, std::vector{fanInterface}});
        }
    }

    void RestartMapper()
    {
        mapper.reset();
        mapper = std::make_unique<kit::FakeMapper>();
        for (int i = 0; i < objects; ++i)
        {
            mapper->Add(Path(i), ServiceName(Home(i)), {fanInterface});
        }
    }

    bool There(int object)
    {
        return owners[Home(object)].running && owners[Home(object)].objects[object].there;
    }

    static bool Shows(Fans& fans, uint8_t expected)
    {
        bool set_ = false;
        uint8_t count = 0;
        fans.Get_fanCount(set_, count);
        return set_ && count == expected && fans.Get_fanPWMData() == FanOf(expected);
    }

    bool Settled()
    {
        for (int i = 0; i < objects; ++i)
        {
            const bool live = lives[static_cast<size_t>(i)].State() == LiveState::Live;
            if (live != There(i) || lives[static_cast<size_t>(i)].State() == LiveState::Reading)
            {
                return false;
            }
            if (live && !Shows(*lives[static_cast<size_t>(i)], owners[Home(i)].objects[i].count))
            {
                return false;
            }
            if (Home(i) == 0 && owners[0].running &&
                ((set->State(Path(i)) == LiveState::Live) != There(i) ||
                 members.contains(Path(i)) != There(i)))
            {
                return false;
            }
        }
        return true;
    }

    // All is answered rightly again; then every handle shows what the model says.
    void Quiet()
    {
        for (Owner& owner : owners)
        {
            if (owner.service)
            {
                owner.service->Heal();
            }
        }
        EXPECT_TRUE(Rests()) << bmcbus::ReportLiveTable(connection);
    }

    // An invalidation may come behind the answer that already had the new values: what was settled
    // is read once more. It rests when it is as the model says and nothing that comes changes it.
    bool Rests()
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < end && Until([&] { return Settled(); }))
        {
            Deliver();
            if (Settled())
            {
                return true;
            }
        }
        return false;
    }

    std::mt19937 random;
    std::atomic<int> mixed = 0;
    uint8_t last = 0;
    std::unique_ptr<kit::FakeMapper> mapper;
    std::unique_ptr<kit::FakeService> stranger;
    Owner owners[services];
    std::vector<bmcbus::Live<Fans>> lives;
    std::optional<bmcbus::LiveSet<Fans>> set;
    std::set<std::string> members;
};

TEST_F(Model, ShowsWhatIs)
{
    for (int i = 0; i < seeds && !HasFailure(); ++i)
    {
        Run(static_cast<unsigned int>(firstSeed + i));
    }
}

} // namespace
