#pragma once

// The daemon that knows the controller's network interfaces and keeps its event log.

#include "model.hpp"
#include "part.hpp"

namespace simulator
{

class Network final : public Part
{
  public:
    Network(const Model& machine, const Setting& setting);
    void Publish() override;

  private:
    struct Port
    {
        const char* name;
        const char* text;
        uint32_t number; // last part of its addresses
    };

    void Attach(const Port& port);
    void Detach(const Port& port);
    NamedValues Values(const Port& port) const;
    // The objects of all interfaces, in the order of the table's rows.
    std::vector<Object*> Ports();
    // All interfaces as rows of the table object.
    void PublishTable();
    // Takes what a client wrote into the table over into the interfaces: a row belongs to the one
    // that has its name at present, wherever its object is.
    void TakeTable(const Value& rows);

    const Model& model;
    Object& table;
};

} // namespace simulator
