#pragma once

// Functions of another shared object that end with an exception.
extern "C"
{
    [[noreturn]] void ThrowBusError();
    [[noreturn]] void ThrowEventError();
}
