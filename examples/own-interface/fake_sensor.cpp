// A sensor to try the monitor on: its reading rises by one every second.

#include <bmcbus/testing.hpp>

#include <chrono>
#include <exception>
#include <iostream>
#include <thread>

using namespace bmcbus::testing;

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: fake-sensor com.example.rack.Sensor.xml\n";
        return 2;
    }
    try
    {
        Service service({"com.example.Rack"});
        Object& sensor =
            service.AddObject("/com/example/rack/sensor0", LoadDescription(argv[1]),
                              {{"reading", 20.0}, {"unit", "degrees C"}, {"upperLimit", 25.0}});
        std::cout << "ready" << std::endl;
        for (double reading = 21.0; service.Connected(); reading += 1.0)
        {
            std::this_thread::sleep_for(std::chrono::seconds(1));
            sensor.Set("reading", reading);
            const double limit = sensor.Get("upperLimit").Get<double>();
            if (reading > limit)
            {
                sensor.Emit("limitExceeded", reading, limit);
            }
        }
    }
    catch (const std::exception& error)
    {
        std::cerr << "fake-sensor: " << error.what() << '\n';
    }
    return 1;
}
