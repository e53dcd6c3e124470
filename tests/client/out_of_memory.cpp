// Every allocation of the handlers fails in turn: one line says so, nothing is kept, no lock is
// held, and the next message is handled as if nothing had been.

#include "failing_memory.hpp"
#include "fixture.hpp"

#include <async_ops.hpp>
#include <com/tamm/bmc/power/PowerReporting/client_cache.hpp>
#include <object_mapper.hpp>

namespace
{

using test::failing;
using test::live;

using Power = ClientCache::com::tamm::bmc::power::PowerReporting;
const std::string powerInterface = "com.tamm.bmc.power.PowerReporting";

const std::vector<uint32_t> times = {1, 2, 3};
const std::vector<double> numbers = {1, 2, 3, 4, 5, 6, 7, 8};
const std::vector<std::string> names = {"VR0", "a name that is too long to lie inside", ""};

class OutOfMemory : public testing::Test
{
  protected:
    using Handler = std::function<void(sd_bus_message*)>;

    OutOfMemory()
    {
        EXPECT_GE(sd_bus_default_system(&connection), 0);
        // Recorded lines take memory, too: only errors are, and the first of them now.
        test::SetLogThreshold(2);
        Power("/power", fanService, true).SetByName("nothing", uint8_t{1});
        test::ClearLog();
    }
    ~OutOfMemory() override
    {
        test::SetLogThreshold(1000);
        sd_bus_flush_close_unref(connection);
    }

    // Does the work with each allocation failing in turn, and then without a failure. Gives the
    // number of allocations.
    static size_t FailEach(const std::function<void()>& work,
                           const std::function<void()>& afterFailure)
    {
        for (size_t number = 1;; ++number)
        {
            test::ClearLog();
            failing = number;
            work();
            const bool failed = failing == 0;
            failing = 0;
            if (!failed)
            {
                EXPECT_THAT(test::Log(), testing::IsEmpty());
                return number - 1;
            }
            EXPECT_EQ(test::Log().size(), 1U) << test::Describe(test::Log());
            afterFailure();
        }
    }

    // The same for work that handles a message.
    static size_t FailEach(sd_bus_message* message, const Handler& handle,
                           const std::function<void()>& afterFailure)
    {
        return FailEach(
            [&]
            {
                sd_bus_message_rewind(message, 1);
                handle(message);
            },
            afterFailure);
    }

    static void ExpectException(const std::string& function)
    {
        EXPECT_EQ(test::CountLog(2, 127, function, "EXCEPTION std::bad_alloc"), 1U)
            << test::Describe(test::Log());
    }

    // A handler of an object, which has handled no signal before.
    template <class Class>
    void ExpectOf(Class& object, const size_t& calls, void (Class::*handler)(bmcbus::Message&),
                  const std::vector<Value>& arguments, const std::string& function, size_t least)
    {
        const kit::MessagePtr message = peers.Message(arguments);
        const size_t allocations = FailEach(
            message.get(),
            [&](sd_bus_message* raw)
            {
                bmcbus::Message wrapped(raw);
                (object.*handler)(wrapped);
            },
            [&]
            {
                ExpectException(function);
                EXPECT_EQ(object.SignalCount(), 0U) << "and the lock is not held";
                EXPECT_EQ(calls, 0U);
            });
        EXPECT_GE(allocations, least);
        EXPECT_EQ(object.SignalCount(), 1U);
        EXPECT_EQ(calls, 1U);
    }

    // A handler of a cached proxy.
    void ExpectOfProxy(void (Power::*handler)(bmcbus::Message&),
                       const std::vector<Value>& arguments, const std::string& function,
                       size_t least, const std::function<void(Power&)>& check)
    {
        const size_t before = live;
        {
            size_t calls = 0;
            Power power("/power", fanService, Count, &calls, true);
            ExpectOf(power, calls, handler, arguments, function, least);
            check(power);
        }
        EXPECT_EQ(live, before) << "nothing is kept";
    }

    kit::PrivateBus bus;
    kit::Peers peers;
    sd_bus* connection = nullptr;
};

const Value properties = kit::AsPropertyMap(
    {{"CPUTimeStmp", times}, {"PSURPMReading", numbers}, {"CPUSlotCount", uint8_t{4}}});

void ExpectProperties(Power& power)
{
    EXPECT_EQ(power.Get_CPUTimeStmp(), times);
    EXPECT_EQ(power.Get_PSURPMReading(), numbers);
    EXPECT_EQ(power.Get_CPUSlotCount(), 4);
}

TEST_F(OutOfMemory, InAHandlerOfACachedProxy)
{
    ExpectOfProxy(&Power::ObjectCallbackChanged, {powerInterface, properties},
                  "ObjectCallbackChanged", 3, ExpectProperties);
    ExpectOfProxy(
        &Power::ObjectCallbackAdded,
        {kit::Path{"/power"}, Value::Dictionary("s", "a{sv}", {{powerInterface, properties}})},
        "ObjectCallbackAdded", 4, ExpectProperties);
    ExpectOfProxy(&Power::ObjectCallbackRemoved,
                  {kit::Path{"/power"}, std::vector<std::string>{powerInterface, names[1]}},
                  "ObjectCallbackRemoved", 3, [](Power& power) { EXPECT_FALSE(power.Ready()); });
}

TEST_F(OutOfMemory, InASubscriber)
{
    const size_t before = live;
    {
        size_t calls = 0;
        FanSignal signal(fanPath, Count, &calls);
        ExpectOf(signal, calls, &FanSignal::ObjectCallback, {uint8_t{3}, twoFans}, "ObjectCallback",
                 twoFans.size());
        EXPECT_EQ(signal.Get_fanPWMData(), twoFans);
    }
    EXPECT_EQ(live, before);
}

TEST_F(OutOfMemory, InTheBlockingFirstRead)
{
    kit::FakeService service(fanService, fanPath, {fanInterface},
                             {{"fanCount", 2}, {"fanPWMData", twoFans}});
    const size_t before = live;
    {
        Fan fan(fanPath, "com.example.Nobody");
        // Reads from its service, as one does that was made before the service came.
        std::string found = fanService;
        Fan::GetServiceAsyncCallback(true, found, &fan);
        fan.Set_fanPWMData(FanMap{});
        const size_t allocations = FailEach([&] { fan.ServiceIsSet(); },
                                            [&]
                                            {
                                                ExpectException("ServiceIsSet");
                                                EXPECT_EQ(fan.SignalCount(), 0U)
                                                    << "and the lock is not held";
                                            });
        EXPECT_GE(allocations, twoFans.size());
        EXPECT_EQ(fan.Get_fanPWMData(), twoFans);
        // The completion copies what a caller gives it, and nothing else takes memory.
        std::map<std::string, Fan::Variant> values = {{"fanPWMData", twoFans}};
        FailEach(
            [&]
            {
                fan.Set_fanPWMData(FanMap{});
                Fan::GetPropertiesAsyncCallback(true, values, &fan);
            },
            [] { ExpectException("Set_fanPWMData"); });
        EXPECT_EQ(fan.Get_fanPWMData(), twoFans);
    }
    test::ClearLog();
    EXPECT_EQ(live, before);
}

TEST_F(OutOfMemory, InADirectRead)
{
    kit::FakeService service(fanService, fanPath, {fanInterface}, {{"fanPWMData", twoFans}});
    const size_t before = live;
    {
        FanEdge edge(fanService, fanPath);
        bool ok = true;
        FanMap map;
        const size_t allocations = FailEach(
            [&]
            {
                map = {};
                edge.Get_fanPWMData(ok, map);
            },
            [&]
            {
                ExpectException("GetLocked_fanPWMData");
                EXPECT_FALSE(ok);
                EXPECT_TRUE(map.empty());
            });
        EXPECT_GE(allocations, twoFans.size());
        EXPECT_TRUE(ok) << "and no lock is held";
        EXPECT_EQ(map, twoFans);
    }
    test::ClearLog();
    EXPECT_EQ(live, before);
}

TEST_F(OutOfMemory, InTheReplyToGetAll)
{
    using Request = Async::Ops::detail::Request<Power::Variant>;
    const kit::MessagePtr message = peers.Message({properties});
    size_t failures = 0;
    size_t successes = 0;
    const size_t before = live;
    const size_t allocations = FailEach(
        message.get(),
        [&](sd_bus_message* raw)
        {
            Request request{[&](bool success, std::map<std::string, Power::Variant>& values, void*)
                            {
                                ++(success ? successes : failures);
                                EXPECT_EQ(values.size(), success ? 3U : 0U);
                            },
                            nullptr};
            EXPECT_EQ(Async::Ops::Internal_GetAllProperties_Callback<Power::Variant>(raw, &request,
                                                                                     nullptr),
                      1);
        },
        []
        {
            EXPECT_EQ(
                test::CountLog(2, 300, "Internal_GetAllProperties_Callback", "ex: std::bad_alloc"),
                1U);
        });
    EXPECT_GE(allocations, 5U);
    EXPECT_EQ(failures, allocations);
    EXPECT_EQ(successes, 1U);
    test::ClearLog();
    EXPECT_EQ(live, before);
}

TEST_F(OutOfMemory, InTheReplyOfTheMapper)
{
    using ObjectMapper::Wrappers::ServiceMap;
    using Callback = ObjectMapper::Wrappers::GetObjectCallback2;
    using Record = ObjectMapper::Wrappers::CallbackRecord<Callback>;
    struct Told
    {
        size_t failures = 0;
        size_t successes = 0;
    } told;
    const Callback tell = [](bool success, bool timedOut, ServiceMap& services, void* context)
    {
        auto& to = *static_cast<Told*>(context);
        ++(success ? to.successes : to.failures);
        EXPECT_FALSE(timedOut);
        EXPECT_EQ(services.size(), success ? 2U : 0U);
    };
    const kit::MessagePtr message = peers.Message({std::map<std::string, std::vector<std::string>>{
        {names[1], {powerInterface}}, {powerInterface, names}}});
    const size_t before = live;
    const size_t allocations = FailEach(
        message.get(),
        [&](sd_bus_message* raw)
        {
            const size_t later = std::exchange(failing, 0);
            auto* const record = new Record{tell, &told};
            failing = later;
            ObjectMapper::Wrappers::Internal_GetObjectAsync_Callback2(raw, record, nullptr);
        },
        []
        {
            EXPECT_EQ(
                test::CountLog(2, 300, "Internal_GetObjectAsync_Callback2", "ex: std::bad_alloc"),
                1U)
                << test::Describe(test::Log());
        });
    EXPECT_GE(allocations, 6U);
    EXPECT_EQ(told.failures, allocations);
    EXPECT_EQ(told.successes, 1U);
    test::ClearLog();
    EXPECT_EQ(live, before);
}

} // namespace
