// A library that throws the stand-in's exception, to be caught in another one.

#include "thrower.hpp"

#include <sdbusplus/exception.hpp>
#include <sdeventplus/exception.hpp>

#include <cerrno>

extern "C"
{

    __attribute__((visibility("default"))) void ThrowBusError()
    {
        throw sdbusplus::exception::SdBusError(EINVAL, "there");
    }

    __attribute__((visibility("default"))) void ThrowEventError()
    {
        throw sdeventplus::SdEventError(EEXIST, "there");
    }
}
