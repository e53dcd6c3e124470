#include "mapper.hpp"

namespace simulator
{

using bmcbus::testing::Call;
using bmcbus::testing::MapperTable;

Mapper::Mapper(std::vector<bmcbus::testing::Service*> known, sd_event* loop) :
    services(std::move(known)), service({bmcbus::testing::mapperName}, {.loop = loop})
{
    const auto description = bmcbus::testing::MapperInterface();
    auto& object = service.AddObject(bmcbus::testing::mapperPath, {description});
    for (const auto& method : description.methods)
    {
        object.OnCall(method.name, [this](const Call& call) { return Table().Answer(call); });
    }
}

MapperTable Mapper::Table() const
{
    MapperTable table;
    for (auto* known : services)
    {
        if (!known->Connected())
        {
            continue;
        }
        for (const std::string& path : known->Paths())
        {
            table.Add(path, known->Names().front(), known->ObjectAt(path).Interfaces());
        }
    }
    return table;
}

} // namespace simulator
