#pragma once

// A service of the simulated machine: one connection with its names and objects, which publishes
// what the model says.

#include <bmcbus/testing/service.hpp>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

namespace simulator
{

using bmcbus::testing::Call;
using bmcbus::testing::CallError;
using bmcbus::testing::NamedValues;
using bmcbus::testing::Object;
using bmcbus::testing::Service;
using bmcbus::testing::Value;

// What all parts have in common.
struct Setting
{
    sd_event* loop = nullptr;
    bool ownManagers = false; // every object announces itself from its own path
};

class Part
{
  public:
    // The manager announces the objects, unless each is to do so itself.
    Part(const std::string& name, const std::string& manager, const Setting& setting);
    virtual ~Part() = default;
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;

    // Announces all objects, which have their first values by now: nobody sees the zeros before
    // them.
    void Announce();

    // Announces what a step of the model changed and emits the data signals.
    virtual void Publish() = 0;

    // Plugs or unplugs what is called so; false when there is nothing of that name to do it with.
    virtual bool Plug(const std::string& /*slot*/, bool /*present*/) { return false; }

    Service& Bus() { return service; }

  protected:
    Object& Add(const std::string& path, const std::string& interface,
                const NamedValues& values = {});

    // Stores values and announces those that are new.
    void Update(Object& object, const NamedValues& values);

    // Emits a signal with its arguments taken by name.
    static void Emit(Object& object, const std::string& interface, const std::string& signal,
                     const NamedValues& values);

    Service service;

  private:
    const bool ownManagers;
    std::vector<std::string> managers; // to come with the first announcement
};

inline int64_t Whole(double number)
{
    return std::llround(number);
}

// One value per element: PerEach(model.cpus, &Cpu::celsius), or what a function makes of each.
template <class Elements, class Take>
auto PerEach(const Elements& elements, Take take)
{
    std::vector<std::decay_t<decltype(std::invoke(take, *elements.begin()))>> values;
    values.reserve(elements.size());
    for (const auto& element : elements)
    {
        values.push_back(std::invoke(take, element));
    }
    return values;
}

} // namespace simulator
