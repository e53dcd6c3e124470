#pragma once

// An object to try things with: it says what it was told.

#include "model.hpp"
#include "part.hpp"

namespace simulator
{

class Debug : public Part
{
  public:
    Debug(const Model& machine, const Setting& setting);
    void Publish() override;

  private:
    const Model& model;
    Object& object;
};

} // namespace simulator
