// sdbus-c++'s asynchronous calls, 20 in flight, in its own loop.

#include "fans.hpp"
#include "in_flight.hpp"

#include <sdbus-c++/sdbus-c++.h>

namespace bench
{

void SdbusCppCalls(long count)
{
    static const auto connection = sdbus::createSystemBusConnection();
    static const auto proxy = sdbus::createProxy(*connection, fans::service, fans::path);
    static const std::string fan = "Fan1";
    InFlight flight{count};
    flight.send = [&]
    {
        proxy->callMethodAsync("updateFanPWMData")
            .onInterface(fans::interface)
            .withArguments(fan, uint8_t{40})
            .uponReplyInvoke(
                [&](const sdbus::Error* error, int32_t status)
                {
                    Check(error == nullptr && status == 0, "status");
                    if (flight.Arrived())
                    {
                        connection->leaveEventLoop();
                    }
                });
    };
    flight.Begin();
    connection->enterEventLoop();
}

} // namespace bench
