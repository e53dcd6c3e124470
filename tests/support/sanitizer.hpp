#pragma once

// What the sanitizers' run-time libraries keep tests from doing.

#include <gtest/gtest.h>

namespace test
{

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool addressSanitizer = true;
#else
inline constexpr bool addressSanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__)
inline constexpr bool threadSanitizer = true;
#else
inline constexpr bool threadSanitizer = false;
#endif

} // namespace test

// For tests that fork while other threads allocate: AddressSanitizer's allocator has no fork
// handlers, so a child may wait for ever for a lock that such a thread held.
#define SKIP_WHERE_ALLOCATOR_DOES_NOT_FORK()                                                       \
    if (test::addressSanitizer)                                                                    \
    {                                                                                              \
        GTEST_SKIP() << "AddressSanitizer's allocator does not survive the fork of busy threads";  \
    }

// For tests whose children start threads: ThreadSanitizer goes on counting the parent's threads
// there, and ends a child whose new thread takes the place of one of them.
#define SKIP_WHERE_CHILDREN_CANNOT_START_THREADS()                                                 \
    if (test::threadSanitizer)                                                                     \
    {                                                                                              \
        GTEST_SKIP() << "ThreadSanitizer does not let a forked child start threads";               \
    }
