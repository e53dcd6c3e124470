#pragma once

// The simulated machine: two processors, eight memory modules, two power supplies, two fan groups
// and their physics, roughly. It knows nothing of any bus. The same seed and the same writes give
// the same values at every step.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace simulator
{

// Power in watts, now and over all steps.
struct Meter
{
    double now = 0;
    double least = 1e9;
    double most = 0;
    double sum = 0;

    void Read(double watts)
    {
        now = watts;
        least = watts < least ? watts : least;
        most = watts > most ? watts : most;
        sum += watts;
    }
};

struct Cpu
{
    double load = 0.3; // share of the time that it works
    Meter power;
    double celsius = 45;
    double joules = 0;     // since the start
    uint32_t limit1 = 205; // watts, sustained
    uint32_t limit2 = 250; // watts, for a moment
};

struct Dimm
{
    std::string slot; // "A1"
    size_t cpu = 0;   // the processor it belongs to
    Meter power;
    bool present = true;
};

struct Fan
{
    std::string name;
    uint8_t asked = 30;    // duty cycle in percent
    uint8_t measured = 30; // follows what is asked
    bool manual = false;   // a client set the duty cycle; temperature no longer does
    bool healthy = true;
    double watts = 4;

    double Rpm() const { return 160.0 * measured; }
};

struct PowerSupply
{
    double inputVolts = 230;
    double outputWatts = 200;
    double inputWatts = 215;
    double celsius = 35;
};

class Model
{
  public:
    explicit Model(uint32_t seed);

    // Lets one period of `milliseconds` pass.
    void Step(uint32_t milliseconds);

    // Sets a fan's duty cycle by hand; false for a name that no fan has or more than 100 percent.
    bool SetFan(std::vector<Fan>& fans, const std::string& name, uint8_t percent);

    double CpuWatts() const;
    // All modules of one processor.
    double DimmWatts(size_t cpu) const;
    double DimmWatts() const;
    double FanWatts() const;
    // What the power supplies give; `input` is what they take from the mains.
    double OutputWatts() const;
    // The average of all steps so far.
    double Average(const Meter& meter) const;

    std::vector<Cpu> cpus{2};
    std::vector<Dimm> dimms;
    std::vector<Fan> chassisFans;
    std::vector<Fan> supplyFans;
    std::vector<PowerSupply> supplies{2};
    double inlet = 24; // degrees Celsius
    double exhaust = 34;
    double airflow = 60; // cubic feet a minute
    double storageWatts = 28;
    double pcieWatts = 35;
    double boardWatts = 40;
    Meter input;
    double wattHours = 0;
    double peakAmperes = 0;
    uint32_t systemLimit1 = 650;
    uint32_t systemLimit2 = 720;
    uint32_t memoryLimit1 = 60;
    uint64_t steps = 0;
    uint64_t elapsed = 0; // milliseconds

  private:
    // A number between -1 and 1.
    double Noise();
    // `value` moved by at most `step` and kept between the bounds.
    double Wander(double value, double step, double least, double most);
    void StepCpus(double seconds);
    void StepFans();
    void StepPower(double seconds);

    std::mt19937 random;
};

} // namespace simulator
