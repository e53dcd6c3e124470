#pragma once

// What the machine takes from the mains, and where it goes.

#include "model.hpp"
#include "part.hpp"

namespace simulator
{

class Power final : public Part
{
  public:
    Power(const Model& machine, const Setting& setting);
    void Publish() override;

  private:
    NamedValues Processors() const;
    NamedValues Memory() const;
    NamedValues Totals() const;
    NamedValues Supplies() const;
    // What only the signal carries.
    NamedValues Rails() const;
    // Seconds since the start, once for each of `count` readings.
    std::vector<int64_t> Times(size_t count) const;

    const Model& model;
    Object& object;
};

} // namespace simulator
