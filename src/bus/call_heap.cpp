// A pairing heap whose links are in the calls themselves. Each call points to its first child and
// to its next sibling, and back to the parent or sibling that points to it.

#include "bus/call_heap.hpp"

#include <utility>

namespace bmcbus::detail
{
namespace
{

void Unlink(PendingCall& call)
{
    PendingCall*& from = call.before->child == &call ? call.before->child : call.before->sibling;
    from = call.sibling;
    if (call.sibling != nullptr)
    {
        call.sibling->before = call.before;
    }
}

// One heap of a row of siblings: pairs from left to right, then the pairs from right to left.
PendingCall* MergeRow(PendingCall* row)
{
    PendingCall* pairs = nullptr;
    while (row != nullptr)
    {
        PendingCall* left = row;
        PendingCall* right = left->sibling;
        row = right != nullptr ? right->sibling : nullptr;
        left->sibling = left->before = nullptr;
        if (right != nullptr)
        {
            right->sibling = right->before = nullptr;
        }
        PendingCall* pair = MergeHeaps(left, right);
        pair->sibling = pairs;
        pairs = pair;
    }
    PendingCall* root = nullptr;
    while (pairs != nullptr)
    {
        PendingCall* pair = std::exchange(pairs, pairs->sibling);
        pair->sibling = nullptr;
        root = MergeHeaps(root, pair);
    }
    return root;
}

} // namespace

PendingCall* MergeHeaps(PendingCall* left, PendingCall* right)
{
    if (left == nullptr || right == nullptr)
    {
        return left != nullptr ? left : right;
    }
    if (right->deadline < left->deadline)
    {
        std::swap(left, right);
    }
    right->sibling = left->child;
    if (right->sibling != nullptr)
    {
        right->sibling->before = right;
    }
    right->before = left;
    left->child = right;
    return left;
}

PendingCall* WithoutCall(PendingCall* root, PendingCall& call)
{
    PendingCall* below = MergeRow(std::exchange(call.child, nullptr));
    if (&call != root)
    {
        Unlink(call);
        below = MergeHeaps(root, below);
    }
    call.sibling = call.before = nullptr;
    return below;
}

} // namespace bmcbus::detail
