#pragma once

// The processors with their power limits and registers, and the telemetry of their packages.

#include "model.hpp"
#include "part.hpp"

#include <map>
#include <tuple>

namespace simulator
{

class Processors final : public Part
{
  public:
    Processors(Model& machine, const Setting& setting);
    void Publish() override;

  private:
    // Two numbers of one byte and three of four: the first four name a register.
    using Access = std::tuple<uint8_t, uint8_t, uint32_t, uint32_t, uint32_t>;
    using Register = std::tuple<uint8_t, uint8_t, uint32_t, uint32_t>;

    Object& AddCpu(size_t index);
    void ServeLimit(Object& cpu, const std::string& method, uint32_t& limit);
    void ServeRegisters(Object& cpu, size_t index);
    // Everything known about one package, in the order of the telemetry signal.
    std::vector<uint32_t> Package(const Cpu& cpu) const;
    NamedValues PowerAndHeat() const;
    std::vector<Value> Packages() const;

    Model& model;
    std::vector<Object*> cpus;
    std::vector<std::map<Register, uint32_t>> registers;
    Object& telemetry;
};

} // namespace simulator
