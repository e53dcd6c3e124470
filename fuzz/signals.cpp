// What the expected arguments of a signal may look like.

#include "signals.hpp"

namespace fuzz
{

bool Begin(const std::vector<kit::Value>& arguments, const std::vector<std::string>& types)
{
    for (size_t i = 0; i < types.size(); ++i)
    {
        if (i >= arguments.size() || arguments[i].Signature() != types[i])
        {
            return false;
        }
    }
    return true;
}

} // namespace fuzz
