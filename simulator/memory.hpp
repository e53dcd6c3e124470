#pragma once

// The memory modules, and one object that stands for all of them.

#include "model.hpp"
#include "part.hpp"

#include <array>

namespace simulator
{

class Memory final : public Part
{
  public:
    Memory(Model& machine, const Setting& setting);
    void Publish() override;
    bool Plug(const std::string& slot, bool present) override;

  private:
    // Watts of the four processors' modules and their sum.
    using Watts = std::array<double, 5>;

    Object& AddMemory(const std::string& path, const Dimm* only);
    // Of one module, or of all of them for null.
    Watts PowerOf(const Dimm* only) const;
    // Answers a command: its first byte says what to do.
    int32_t Command(const std::vector<uint8_t>& bytes);

    Model& model;
    std::vector<std::pair<Object*, const Dimm*>> objects;
};

} // namespace simulator
