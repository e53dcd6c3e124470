// The code under test: a cached proxy for the values, a subscriber for the alarm.

#include "rack_monitor.hpp"

#include "rack_sensor.hpp"

#include <sstream>
#include <utility>

using ClientCache::com::example::rack::Sensor;
using ClientCache::Sensor::limitExceeded;
using Call = ClientEdge::com::example::rack::Sensor;

RackMonitor::RackMonitor(const std::string& where, const std::string& who, Report to) :
    path(where),
    service(who),
    report(std::move(to)),
    sensor(nullptr),
    alarm(limitExceeded::Create(where, OnLimit, this))
{
    // Blocks for the first read, so the values are there when the constructor returns.
    sensor = Sensor::Create(path, service, OnChange, this);
}

RackMonitor::~RackMonitor()
{
    Sensor::Release(sensor);
    limitExceeded::Release(alarm);
}

bool RackMonitor::Ready() const
{
    return sensor->Ready();
}

double RackMonitor::Reading() const
{
    return sensor->Get_reading();
}

uint32_t RackMonitor::Alarms() const
{
    return alarm->SignalCount();
}

bool RackMonitor::Calibrate(double reference)
{
    bool ok = false;
    double offset = 0.0;
    Call(service, path).Call_calibrate(ok, reference, offset);
    if (ok)
    {
        report("calibrated, offset " + std::to_string(offset));
    }
    return ok;
}

bool RackMonitor::SetUpperLimit(double limit)
{
    Call call(service, path);
    call.Set_upperLimit(limit);

    // Setters report nothing, so look at what the sensor has made of it.
    bool ok = false;
    double taken = 0.0;
    call.Get_upperLimit(ok, taken);
    return ok && taken == limit;
}

void RackMonitor::OnChange(Sensor* changed, void* self)
{
    if (!changed->Ready())
    {
        static_cast<RackMonitor*>(self)->report("sensor gone");
        return;
    }
    std::ostringstream line;
    line << "reading " << changed->Get_reading() << ' ' << changed->Get_unit();
    static_cast<RackMonitor*>(self)->report(line.str());
}

void RackMonitor::OnLimit(limitExceeded* arrived, void* self)
{
    double reading = 0.0;
    double limit = 0.0;
    arrived->Get(reading, limit);
    std::ostringstream line;
    line << "limit exceeded: " << reading << " > " << limit;
    static_cast<RackMonitor*>(self)->report(line.str());
}
