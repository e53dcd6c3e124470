#include "fork.hpp"

#include <vector>

namespace bmcbus::testing
{

void KeepForEver(void* abandoned)
{
    static auto* const kept = new std::vector<void*>;
    kept->push_back(abandoned);
}

} // namespace bmcbus::testing
