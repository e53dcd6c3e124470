// Linked into the programs of the source tree, which are run before anything is installed.

#include <bmcbus/testing/description.hpp>

namespace
{

[[maybe_unused]] const bool added = []
{
    bmcbus::testing::AddInterfaceFolder(BMCBUS_SOURCE_INTERFACES);
    return true;
}();

} // namespace
