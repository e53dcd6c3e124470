// A small class of a program's own that uses the generated clients; rack_monitor_test.cpp tests
// it.

#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace ClientCache::com::example::rack
{
class Sensor;
}
namespace ClientCache::Sensor
{
class limitExceeded;
}

/**
 * Watches one sensor. Make it, use it and destroy it on the thread that dispatches the default
 * system bus.
 */
class RackMonitor
{
  public:
    using Report = std::function<void(const std::string& line)>;

    /** Says what happens to @p report; an empty @p service is looked up. */
    RackMonitor(const std::string& path, const std::string& service, Report report);
    ~RackMonitor();
    RackMonitor(const RackMonitor&) = delete;
    RackMonitor& operator=(const RackMonitor&) = delete;

    /** Whether the sensor is there. */
    bool Ready() const;

    /** The last reading that was announced; costs no call. */
    double Reading() const;

    /** How often the limit was exceeded. */
    uint32_t Alarms() const;

    /** Tells the sensor what it should read right now; blocks. False when it did not answer. */
    bool Calibrate(double reference);

    /** Sets the limit; blocks. False when the sensor did not take it. */
    bool SetUpperLimit(double limit);

  private:
    static void OnChange(ClientCache::com::example::rack::Sensor* sensor, void* self);
    static void OnLimit(ClientCache::Sensor::limitExceeded* alarm, void* self);

    const std::string path;
    const std::string service;
    Report report;
    ClientCache::com::example::rack::Sensor* sensor;
    ClientCache::Sensor::limitExceeded* alarm;
};
