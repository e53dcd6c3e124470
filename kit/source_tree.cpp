// Linked into the programs of the source tree, which are run before anything is installed.

#include <bmcbus/testing/description.hpp>
#include <bmcbus/testing/simulator.hpp>

namespace
{

[[maybe_unused]] const bool added = []
{
    bmcbus::testing::AddInterfaceFolder(BMCBUS_SOURCE_INTERFACES);
    bmcbus::testing::Simulator::SetProgram(BMCBUS_BUILT_SIMULATOR);
    return true;
}();

} // namespace
