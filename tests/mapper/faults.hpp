#pragma once

// Makes one sd-bus function fail on the calling thread, for as long as the object lives.

class Failing
{
  public:
    explicit Failing(const char* function); // returns -ENOMEM
    ~Failing();
    Failing(const Failing&) = delete;
    Failing& operator=(const Failing&) = delete;
};

// sd_bus_message_new_method_call reports success without a message.
class FailingSilently
{
  public:
    FailingSilently();
    ~FailingSilently();
    FailingSilently(const FailingSilently&) = delete;
    FailingSilently& operator=(const FailingSilently&) = delete;
};
