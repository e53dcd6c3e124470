#pragma once

// A followed object's report.

#include "live/entry.hpp"

namespace bmcbus::live
{

LiveReport ReportOf(const Entry& entry);

} // namespace bmcbus::live
