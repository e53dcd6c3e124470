// Replaces operator new and delete: a test can have one allocation fail, and sees how many are not
// freed.

#include "failing_memory.hpp"

#include <cstdlib>
#include <new>

namespace test
{

thread_local size_t failing = 0;
thread_local size_t live = 0;

} // namespace test

namespace
{

using test::failing;
using test::live;

// Gives memory, or does not.
void* Allocate(size_t size)
{
    if (failing > 0 && --failing == 0)
    {
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    ++live;
    return memory;
}

void Free(void* memory)
{
    live -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

} // namespace

void* operator new(size_t size)
{
    return Allocate(size);
}
void* operator new[](size_t size)
{
    return Allocate(size);
}
// Whoever asks like this can do without, as sorting does.
void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    void* const memory = std::malloc(size);
    live += memory != nullptr ? 1 : 0;
    return memory;
}
void operator delete(void* memory) noexcept
{
    Free(memory);
}
void operator delete[](void* memory) noexcept
{
    Free(memory);
}
void operator delete(void* memory, size_t) noexcept
{
    Free(memory);
}
void operator delete[](void* memory, size_t) noexcept
{
    Free(memory);
}
