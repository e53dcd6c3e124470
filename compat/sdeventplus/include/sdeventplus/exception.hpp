#pragma once

/**
 * @file
 * What failed event loop calls throw.
 *
 * Stand-in for the library of this name, with the part of its interface that this project and its
 * callers use.
 */

#include <system_error>

#pragma GCC visibility push(default)

namespace sdeventplus
{

/** A failed sd-event call: "call: text of the errno". */
class SdEventError final : public std::system_error
{
  public:
    /** @param number positive errno */
    SdEventError(int number, const char* call) :
        std::system_error(number, std::generic_category(), call)
    {
    }
};

} // namespace sdeventplus

#pragma GCC visibility pop
