// A service of sdbusplus that is a client as well: one io_context runs both. It follows the fans of
// another service and offers an alarm. Ends with 0 once the fans were slow, gone and back.
#include <bmcbus/attach/asio.hpp>
#include <bmcbus/live.hpp>
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>

#include <boost/asio/io_context.hpp>
#include <sdbusplus/asio/connection.hpp>
#include <sdbusplus/asio/object_server.hpp>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <memory>

using Fans = ClientCache::com::tamm::bmc::Thermal::FanReporting;

int main()
{
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0)
    {
        return 1;
    }
    boost::asio::io_context io;

    // The server's half has a connection of its own, which sdbusplus dispatches.
    auto connection = std::make_shared<sdbusplus::asio::connection>(io, raw);
    sdbusplus::asio::object_server server(connection);
    const auto guard = server.add_interface("/com/example/guard", "com.example.Guard");
    guard->register_property("Alarm", false);
    guard->initialize();
    connection->request_name("com.example.Guard");

    // The client's half has the thread's default one, in the same loop.
    const bmcbus::attach::Asio attached(io);
    bool slow = false;
    bool gone = false;
    const bmcbus::Live<Fans> fans(nullptr, "/com/example/fans",
                                  {.service = "com.example.Fans",
                                   .on_change =
                                       [&](Fans& now, const bmcbus::Changes& changes)
                                   {
                                       if (!changes.contains("fanPWMData"))
                                       {
                                           return;
                                       }
                                       for (const auto& [name, reading] : now.Get_fanPWMData())
                                       {
                                           std::printf("%s: %d %%\n", name.c_str(),
                                                       std::get<1>(reading));
                                           const bool alarm = std::get<1>(reading) < 15;
                                           guard->set_property("Alarm", alarm);
                                           slow = slow || alarm;
                                       }
                                   },
                                   .on_state =
                                       [&](Fans&, bmcbus::LiveState state)
                                   {
                                       std::printf("fans: %s\n", bmcbus::Name(state));
                                       if (slow && gone && state == bmcbus::LiveState::Live)
                                       {
                                           io.stop();
                                       }
                                       gone = gone || state == bmcbus::LiveState::Lost;
                                   }});
    io.run();
    return slow && gone ? 0 : 1;
}
