// InterfacesAdded, as a cached proxy handles it.

#include "signals.hpp"

namespace
{

using namespace fuzz;

std::vector<kit::Value> Arguments(Input& input, const std::string& own)
{
    std::vector<std::pair<kit::Value, kit::Value>> interfaces;
    for (size_t count = input.OnceIn(16) ? 50 : input.Below(4); count > 0 && input.Left(); --count)
    {
        const std::string interface = input.OnceIn(3) ? input.Name() : own;
        interfaces.emplace_back(interface, input.PropertyMap());
    }
    return {input.Of("o"), kit::Value::Dictionary("s", "a{sv}", std::move(interfaces))};
}

bool Apply(Copy& copy, const std::vector<kit::Value>& arguments)
{
    if (!Begin(arguments, {"o", "a{sa{sv}}"}))
    {
        return false;
    }
    for (const kit::Value& entry : arguments[1].Children())
    {
        // Of equal names the first counts.
        if (entry.Children()[0] == kit::Value(copy.interface))
        {
            copy.Store(entry.Children()[1]);
            copy.ready = true;
            break;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Run(data, size, {managerInterface, "InterfacesAdded", Arguments, Apply});
}
