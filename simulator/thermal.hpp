#pragma once

// Fans, air temperatures, and the efficiency figures derived from them.

#include "model.hpp"
#include "part.hpp"

namespace simulator
{

class Thermal final : public Part
{
  public:
    Thermal(Model& machine, const Setting& setting);
    void Publish() override;

  private:
    // An object that reports a group of fans and lets clients set their speed.
    Object& AddFans(const std::string& path, std::vector<Fan>& fans);
    void PublishFans(Object& object, const std::vector<Fan>& fans);
    void PublishAir();
    NamedValues Telemetry() const;

    Model& model;
    Object& chassisFans;
    Object& supplyFans;
    Object& air;
    Object& telemetry;
    bool exhaustWritten = false; // what a client wrote stays
    bool airflowWritten = false;
};

} // namespace simulator
