#include "faults.hpp"

#include <czmq.h>
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

test::Faults test::faults;

namespace
{

template <class Function>
Function* Real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

static bool Interrupted()
{
    int left = test::faults.signals;
    while (left > 0 && !test::faults.signals.compare_exchange_weak(left, left - 1))
    {
    }
    errno = left > 0 ? EINTR : errno;
    return left > 0;
}

extern "C" int poll(pollfd* fds, nfds_t count, int milliseconds)
{
    static auto* const real = Real<int(pollfd*, nfds_t, int)>("poll");
    return count == 1 && fds->events == POLLOUT && Interrupted() ? -1
                                                                 : real(fds, count, milliseconds);
}

extern "C" ssize_t write(int fd, const void* data, size_t size)
{
    static auto* const real = Real<ssize_t(int, const void*, size_t)>("write");
    if (size != 2) // not a trigger
    {
        return real(fd, data, size);
    }
    if (Interrupted())
    {
        return -1;
    }
    if (const int error = test::faults.write; error != 0)
    {
        errno = error;
        return -1;
    }
    const ssize_t written = real(fd, data, size);
    test::faults.triggers += written == 2 ? 1 : 0;
    return written;
}

extern "C" ssize_t read(int fd, void* data, size_t size)
{
    static auto* const real = Real<ssize_t(int, void*, size_t)>("read");
    if (test::faults.read && size == 32)
    {
        errno = EIO;
        return -1;
    }
    return real(fd, data, size);
}

extern "C" int pipe(int* fds) noexcept
{
    static auto* const real = Real<int(int*)>("pipe");
    if (test::faults.pipe.exchange(false))
    {
        errno = EMFILE;
        return -1;
    }
    return real(fds);
}

extern "C" int zloop_poller(zloop_t* self, zmq_pollitem_t* item, zloop_fn handler, void* arg)
{
    static auto* const real = Real<int(zloop_t*, zmq_pollitem_t*, zloop_fn, void*)>("zloop_poller");
    return test::faults.poller ? -1 : real(self, item, handler, arg);
}
