#pragma once

// Pending calls in the order of their deadlines: a pairing heap through the calls themselves.
// Adding allocates nothing and costs the same however many there are, as calls mostly end in their
// order.

#include <bmcbus/call.hpp>

namespace bmcbus::detail
{

// One heap of two; either may be null.
PendingCall* MergeHeaps(PendingCall* left, PendingCall* right);

// The heap without `call`, which is in it.
PendingCall* WithoutCall(PendingCall* root, PendingCall& call);

} // namespace bmcbus::detail
