// A signal of seventy arguments, most of them lists.

#include "subscriber.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::Run<fuzz::PowerSignal>(data, size);
}
