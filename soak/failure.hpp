#pragma once

// What ends the run.

#include <stdexcept>
#include <string>

namespace soak
{

struct Failure : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

inline void Require(bool holds, const std::string& otherwise)
{
    if (!holds)
    {
        throw Failure(otherwise);
    }
}

} // namespace soak
