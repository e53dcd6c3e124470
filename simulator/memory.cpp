#include "memory.hpp"

#include <cerrno>

namespace simulator
{
namespace
{

constexpr const char* dimmInterface = "com.tamm.bmc.Memory.Dimm";

} // namespace

Memory::Memory(Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Memory", "/com/tamm/bmc/memory", setting), model(machine)
{
    AddMemory("/com/tamm/bmc/memory/all", nullptr);
    for (const Dimm& dimm : model.dimms)
    {
        AddMemory("/com/tamm/bmc/memory/dimm/" + dimm.slot, &dimm);
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
