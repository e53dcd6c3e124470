// What is too large for the bus is refused before it is sent, and nothing else suffers.

#include "fixture.hpp"

#include <async_ops.hpp>
#include <bmcbus/connection.hpp>
#include <com/tamm/bmc/Memory/Dimm/client_cache.hpp>
#include <object_mapper.hpp>
#include <qzlog_via_dbus.hpp>

namespace
{

using DimmEdge = ClientEdge::com::tamm::bmc::Memory::Dimm;

constexpr size_t mebibyte = 1U << 20U;

class LargeMessages : public ClientTest
{
  protected:
    // The daemon's own default for a system bus.
    LargeMessages() : ClientTest(kit::BusLimits::Stock()) {}
    ~LargeMessages() override { bmcbus::SetMessageLimit(32 * mebibyte); }

    // The connection and what is on it live on.
    void ExpectAlive(uint8_t count)
    {
        fans->Set("fanCount", count);
        Deliver();
        EXPECT_EQ(fan.Get_fanCount(), count);
    }

    static bool CallWith(size_t bytes)
    {
        DimmEdge dimm(fanService, fanPath);
        bool ok = true;
        int32_t out = 0;
        dimm.Call_MemoryCmdHandler(ok, std::vector<uint8_t>(bytes), out);
        return ok;
    }

    Fan fan{fanPath, fanService};
};

TEST_F(LargeMessages, OfACallFailItAndNothingElse)
{
    for (const size_t size : {33U, 65U, 140U})
    {
        test::ClearLog();
        EXPECT_FALSE(CallWith(size * mebibyte));
        EXPECT_EQ(test::CountLog(2, 127, "Call_MemoryCmdHandler",
                                 "EXCEPTION sd_bus_message_append_array: System.Error.EMSGSIZE: "
                                 "Message too long"),
                  1U)
            << size;
        ExpectAlive(static_cast<uint8_t>(size));
    }
}

TEST_F(LargeMessages, OfTheEventLogAreRefused)
{
    bmcbus::SetMessageLimit(10'000);
    const std::string large(10'000, 'x');
    bmcbus::Bus wrapped(connection);
    test::ClearLog();
    QZLogViaDbus::Log(wrapped, 1, 2, 3, "ID", "", "", {large});
    QZLogViaDbus::Log(wrapped, 1, 2, 3, large);
    EXPECT_EQ(test::CountLog(1, 300, "Log",
                             "exception: sd_bus_message_append_basic: System.Error.EMSGSIZE: "
                             "Message too long\n"),
              2U);
    ExpectAlive(3);
}

TEST_F(LargeMessages, OfQuestionsAndRulesAreRefused)
{
    bmcbus::SetMessageLimit(10'000);
    const std::string path = "/" + std::string(10'000, 'x');
    using namespace ObjectMapper::Wrappers;
    EXPECT_THROW(GetObject(path, {}), bmcbus::Error);
    EXPECT_THROW(GetObject("/a", {path}), bmcbus::Error);
    EXPECT_ANY_THROW(GetObjectAsync(
        path, {}, [](bool, ServiceMap&, void*) {}, nullptr));
    bmcbus::Bus wrapped(connection);
    using Properties = std::map<std::string, std::variant<uint32_t>>;
    EXPECT_ANY_THROW(Async::Ops::GetAllProperties<std::variant<uint32_t>>(
        wrapped, fanService, fanPath, path, [](bool, Properties&, void*) {}, nullptr));
    EXPECT_FALSE(Fan(path, fanService).Ready());
    const FanSignal deaf(path);
    ExpectAlive(4);
}

TEST_F(LargeMessages, AreAMatterOfTheBusAsConfigured)
{
    bmcbus::SetMessageLimit(10'000);
    EXPECT_FALSE(CallWith(10'000));
    EXPECT_THROW(
        ObjectMapper::Wrappers::GetObject("/a", std::list<std::string>(10, std::string(1000, 'x'))),
        bmcbus::Error)
        << "of many pieces";
    // All but what names and numbers take.
    FanEdge edge(fanService, fanPath);
    bool ok = false;
    int32_t status = 0;
    edge.Call_updateFanPWMData(ok, std::string(10'000 - 2048, 'x'), 1, status);
    EXPECT_TRUE(ok);
    ExpectAlive(5);
}

} // namespace
