// Keeps what a forked child must not destroy, where leak checkers find it.

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
