// PropertiesChanged, as a cached proxy handles it.

#include "signals.hpp"

namespace
{

using namespace fuzz;

std::vector<kit::Value> Arguments(Input& input, const std::string& own)
{
    const std::string interface = input.OnceIn(8) ? input.Name() : own;
    return {interface, input.PropertyMap(), input.Of("as")};
}

bool Apply(Copy& copy, const std::vector<kit::Value>& arguments)
{
    if (!Begin(arguments, {"s", "a{sv}"}))
    {
        return false;
    }
    if (arguments[0] == kit::Value(copy.interface))
    {
        copy.Store(arguments[1]);
        copy.ready = true;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return Run(data, size, {propertiesInterface, "PropertiesChanged", Arguments, Apply});
}
