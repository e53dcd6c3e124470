// The modules only signal their power; all of them together are one more object.

#include "memory.hpp"

#include <algorithm>
#include <cerrno>

namespace simulator
{
namespace
{

constexpr const char* dimmInterface = "com.tamm.bmc.Memory.Dimm";

std::string PathOf(const Dimm& dimm)
{
    return "/com/tamm/bmc/memory/dimm/" + dimm.slot;
}

} // namespace

Memory::Memory(Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Memory", "/com/tamm/bmc/memory", setting), model(machine)
{
    AddMemory("/com/tamm/bmc/memory/all", nullptr);
    for (const Dimm& dimm : model.dimms)
    {
        AddMemory(PathOf(dimm), &dimm);
    }
    Publish();
}

Object& Memory::AddMemory(const std::string& path, const Dimm* only)
{
    Object& object = Add(path, dimmInterface);
    object.OnCall("getDbusStatus", [](const Call&) { return std::vector<Value>{0}; });
    object.OnCall("DimmPowerCmdHandler",
                  [this, only](const Call&)
                  {
                      std::vector<Value> answer = {0};
                      const Watts watts = PowerOf(only);
                      answer.insert(answer.end(), watts.begin(), watts.end());
                      return answer;
                  });
    object.OnCall(
        "MemoryCmdHandler", [this](const Call& call)
        { return std::vector<Value>{Command(call.arguments[0].Get<std::vector<uint8_t>>())}; });
    objects.emplace_back(&object, only);
    return object;
}

bool Memory::Plug(const std::string& slot, bool present)
{
    const auto dimm = std::find_if(model.dimms.begin(), model.dimms.end(),
                                   [&](const Dimm& each)
                                   { return each.slot == slot && each.present != present; });
    if (dimm == model.dimms.end())
    {
        return false;
    }
    dimm->present = present;
    if (present)
    {
        AddMemory(PathOf(*dimm), &*dimm);
    }
    else
    {
        dimm->power.now = 0;
        std::erase_if(objects, [&](const auto& object) { return object.second == &*dimm; });
        service.RemoveObject(PathOf(*dimm));
    }
    return true;
}

Memory::Watts Memory::PowerOf(const Dimm* only) const
{
    Watts watts{};
    for (const Dimm& dimm : model.dimms)
    {
        if (only == nullptr || only == &dimm)
        {
            watts.at(dimm.cpu) += dimm.power.now;
            watts.back() += dimm.power.now;
        }
    }
    return watts;
}

int32_t Memory::Command(const std::vector<uint8_t>& bytes)
{
    enum : uint8_t
    {
        nothing = 0,
        setLimit = 1 // watts for all modules in the second byte
    };
    if (bytes.size() == 1 && bytes[0] == nothing)
    {
        return 0;
    }
    if (bytes.size() == 2 && bytes[0] == setLimit && bytes[1] > 0)
    {
        model.memoryLimit1 = bytes[1];
        return 0;
    }
    return -EINVAL;
}

void Memory::Publish()
{
    for (const auto& [object, dimm] : objects)
    {
        const Watts watts = PowerOf(dimm);
        object->EmitValues("DIMMPowerTelemetry", {watts.begin(), watts.end()});
    }
}

} // namespace simulator
