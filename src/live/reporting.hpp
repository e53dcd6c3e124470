#pragma once

#include "live/entry.hpp"

namespace bmcbus::live
{

LiveReport ReportOf(const Entry& entry);

} // namespace bmcbus::live
