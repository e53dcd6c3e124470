#pragma once

// Makes one sd-bus function fail on the calling thread, for as long as the object lives.

#include "faults.h"

class Failing
{
  public:
    explicit Failing(const char* function) { failingSdBus = function; } // returns -ENOMEM
    ~Failing() { failingSdBus = nullptr; }
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;
};

// sd_bus_message_new_method_call reports success without a message.
class FailingSilently
{
  public:
    FailingSilently() { nothingMade = 1; }
    ~FailingSilently() { nothingMade = 0; }
    FailingSilently(const FailingSilently&) = delete;
    FailingSilently& operator=(const FailingSilently&) = delete;
};
