// A signal of two arguments, one of them a map.

#include "subscriber.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::Run<fuzz::FanSignal>(data, size);
}
