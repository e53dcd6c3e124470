#pragma once

// No descriptor can be opened for as long as the object lives.

#include <sys/resource.h>

namespace test
{

class NoDescriptors
{
  public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit none = before_;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    rlimit before_{};
};

} // namespace test
