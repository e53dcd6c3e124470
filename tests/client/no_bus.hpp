#pragma once

// A system bus that cannot be reached, for as long as the object lives. Never the machine's own.

#include <cstdlib>
#include <string>

namespace test
{

class NoBus
{
  public:
    NoBus()
    {
        if (const char* address = std::getenv(variable))
        {
            before_ = address;
        }
        setenv(variable, "unix:path=/nonexistent/bus", 1);
    }
    ~NoBus() { before_.empty() ? unsetenv(variable) : setenv(variable, before_.c_str(), 1); }
    NoBus(const NoBus&) = delete;
    NoBus& operator=(const NoBus&) = delete;

  private:
    static constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";
    std::string before_;
};

} // namespace test
