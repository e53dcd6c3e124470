#pragma once

// The fans as a service in a process of its own.

#include <sys/types.h>

namespace bench
{

class ServiceProcess
{
  public:
    // Returns when the service is there.
    ServiceProcess();
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

  private:
    pid_t child;
};

} // namespace bench
