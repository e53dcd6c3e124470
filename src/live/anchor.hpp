#pragma once

// What sd-bus gives to the filter: the hub, as long as there is one.

#include "live/hub.hpp"

namespace bmcbus::live
{

struct Hub::Anchor
{
    Hub* hub;
};

} // namespace bmcbus::live
