#pragma once

// The object mapper: which service has which interfaces at which path.

#include <bmcbus/testing/fake_mapper.hpp>

#include <vector>

namespace simulator
{

class Mapper
{
  public:
    // Answers for `known`, as far as they are connected; they outlive the mapper.
    Mapper(std::vector<bmcbus::testing::Service*> known, sd_event* loop);

  private:
    // What is there right now.
    bmcbus::testing::MapperTable Table() const;

    std::vector<bmcbus::testing::Service*> services;
    bmcbus::testing::Service service;
};

} // namespace simulator
