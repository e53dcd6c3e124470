// A service as sdbusplus's asio classes make it: its object manager is at the root, far above its
// object. The fans come and go, so that clients have something to follow.
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <sdbusplus/asio/connection.hpp>
#include <sdbusplus/asio/object_server.hpp>
#include <systemd/sd-bus.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <tuple>

using Readings = std::map<std::string, std::tuple<uint8_t, uint8_t, uint8_t, bool>>;

class FanService
{
  public:
    explicit FanService(boost::asio::io_context& io, sd_bus* bus) :
        connection(std::make_shared<sdbusplus::asio::connection>(io, bus)),
        server(connection),
        timer(io)
    {
        Plug();
        connection->request_name("com.example.Fans");
        Tick();
    }

  private:
    void Plug()
    {
        fans = server.add_interface("/com/example/fans", "com.tamm.bmc.Thermal.FanReporting");
        fans->register_property("fanCount", uint8_t{1});
        fans->register_property("fanPWMData", Readings{{"Fan1", {30, 30, 48, true}}});
        fans->initialize();
    }

    // Slower, slower, gone, back again.
    void Tick()
    {
        timer.expires_after(std::chrono::milliseconds(200));
        timer.async_wait(
            [this](const boost::system::error_code& error)
            {
                if (error)
                {
                    return;
                }
                if (step == 2)
                {
                    server.remove_interface(fans);
                    fans.reset();
                }
                else if (step == 3)
                {
                    Plug();
                }
                else
                {
                    const auto speed = static_cast<uint8_t>(20 - 10 * step);
                    fans->set_property("fanPWMData", Readings{{"Fan1", {30, speed, 16, true}}});
                }
                step = (step + 1) % 4;
                Tick();
            });
    }

    std::shared_ptr<sdbusplus::asio::connection> connection;
    sdbusplus::asio::object_server server; // adds the object manager at "/"
    std::shared_ptr<sdbusplus::asio::dbus_interface> fans;
    boost::asio::steady_timer timer;
    int step = 0;
};

int main()
{
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0)
    {
        return 1;
    }
    boost::asio::io_context io;
    const FanService service(io, bus);
    io.run();
}
