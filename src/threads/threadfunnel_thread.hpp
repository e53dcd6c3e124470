#pragma once

// The funnel thread: starting it, and handing it an item.

#include <functional>

namespace bmcbus::funnel
{

// Both for who has the turn and holds the main lock.

// Starts the funnel thread unless there is one; false, after lines, when it did not start.
bool StartThreadIfNeeded();

// Has the funnel thread run `work`, and waits until it has.
void RunOnFunnelThread(std::function<void()>& work);

} // namespace bmcbus::funnel
