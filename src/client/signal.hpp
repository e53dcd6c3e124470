#pragma once

// The end of every signal handler.

#include <bmcbus/client/object.hpp>

namespace bmcbus::client
{

// Counts one signal; the counter is never 0 again after the first.
void CountSignal(uint32_t& count);

// Runs `callbacks` until one releases the object, and logs the handler's last line.
void RunCallbacks(Anchor& anchor, const char* function, const Callbacks& callbacks);

} // namespace bmcbus::client
