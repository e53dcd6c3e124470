// InterfacesRemoved, as a cached proxy handles it.

#include "signals.hpp"

namespace
{

using namespace fuzz;

std::vector<kit::Value> Arguments(Input& input, const std::string& own)
{
    std::vector<std::string> interfaces;
    for (size_t count = input.Below(6); count > 0; --count)
    {
        interfaces.push_back(input.OnceIn(2) ? input.Name() : own);
    }
    return {input.Of("o"), interfaces};
}

bool Apply(Copy& copy, const std::vector<kit::Value>& arguments)
{
    if (!Begin(arguments, {"o", "as"}))
    {
        return false;
    }
    for (const kit::Value& interface : arguments[1].Children())
    {
        if (interface == kit::Value(copy.interface))
        {
            copy.ready = false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Run(data, size, {managerInterface, "InterfacesRemoved", Arguments, Apply});
}
