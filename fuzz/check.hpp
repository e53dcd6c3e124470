#pragma once

// What a fuzzer finds besides crashes.

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz
{

[[noreturn]] inline void Fail(const std::string& what)
{
    std::fprintf(stderr, "broken promise: %s\n", what.c_str());
    std::abort();
}

inline void Expect(bool kept, const char* what)
{
    if (!kept)
    {
        Fail(what);
    }
}

} // namespace fuzz
