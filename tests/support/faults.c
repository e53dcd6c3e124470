/*
 * Plain C without instrumentation: a sanitizer's runtime calls these functions before it is ready.
 */
#define _GNU_SOURCE
#include "faults.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

struct Fault threadCreation;
struct Fault keyCreation;
struct Fault handlerRegistration;
struct Fault condWait;
struct Fault broadcast;
struct Fault join;
struct Fault pipeCreation;
struct Fault writing;
struct Fault written;
struct Fault reading;
struct Fault interruption;
struct Fault zloopPoller;
_Thread_local pthread_mutex_t* brokenMutex;
void (*beforeRegistration)(void (*prepare)(void));
_Thread_local int goodLocks;
_Thread_local int nextLockFails;
_Thread_local int nextUnlockFails;
_Thread_local const char* failingSdBus;
_Thread_local int nothingMade;

void FailCalls(struct Fault* fault, int good, int count, int error)
{
    __atomic_store_n(&fault->calls, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&fault->error, error, __ATOMIC_SEQ_CST);
    __atomic_store_n(&fault->first, good, __ATOMIC_SEQ_CST);
    __atomic_store_n(&fault->last, good + count, __ATOMIC_SEQ_CST);
}

int CountCalls(const struct Fault* fault)
{
    return __atomic_load_n(&fault->calls, __ATOMIC_SEQ_CST);
}

/* By default a child of a process with threads is ended as soon as it starts one itself. */
const char* __tsan_default_options(void);
const char* __tsan_default_options(void)
{
    return "die_after_fork=0";
}

static int thisCall(struct Fault* fault)
{
    const int number = __atomic_fetch_add(&fault->calls, 1, __ATOMIC_SEQ_CST);
    const int failing = number >= __atomic_load_n(&fault->first, __ATOMIC_SEQ_CST) &&
                        number < __atomic_load_n(&fault->last, __ATOMIC_SEQ_CST);
    return failing ? __atomic_load_n(&fault->error, __ATOMIC_SEQ_CST) : 0;
}

static int thisCallOfThread(int* fails)
{
    const int irv = *fails;
    *fails = 0;
    return irv;
}

static void* next(void** cache, const char* name)
{
    void* found = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
    if (found == NULL)
    {
        found = dlsym(RTLD_NEXT, name);
        __atomic_store_n(cache, found, __ATOMIC_RELEASE);
    }
    return found;
}

/* Defines `function`: it returns `irv` unless that is 0, else what the next definition returns. */
// NOLINTBEGIN(bugprone-macro-parentheses): lists of parameters have their own
#define STAND_IN(function, parameters, arguments, irv)                                             \
    int function parameters;                                                                       \
    int function parameters                                                                        \
    {                                                                                              \
        static void* cache;                                                                        \
        int(*real) parameters = (int(*) parameters)next(&cache, #function);                        \
        const int error = irv;                                                                     \
        return error != 0 ? error : real arguments;                                                \
    }
// NOLINTEND(bugprone-macro-parentheses)

#pragma GCC diagnostic ignored "-Wpedantic" /* dlsym() returns functions as data */

STAND_IN(pthread_create,
         (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*),
          void* argument),
         (thread, attributes, body, argument), thisCall(&threadCreation))
STAND_IN(pthread_join, (pthread_t thread, void** result), (thread, result), thisCall(&join))
STAND_IN(pthread_key_create, (pthread_key_t * key, void (*destroy)(void*)), (key, destroy),
         thisCall(&keyCreation))
STAND_IN(pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
         (condition, mutex), thisCall(&condWait))
STAND_IN(pthread_cond_broadcast, (pthread_cond_t * condition), (condition), thisCall(&broadcast))
static int locking(const pthread_mutex_t* mutex)
{
    if (brokenMutex == mutex)
    {
        return EINVAL;
    }
    if (goodLocks > 0)
    {
        --goodLocks;
        return 0;
    }
    return thisCallOfThread(&nextLockFails);
}

STAND_IN(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), locking(mutex))
STAND_IN(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex),
         thisCallOfThread(&nextUnlockFails))

static int registration(void (*prepare)(void))
{
    void (*const hook)(void (*)(void)) = __atomic_load_n(&beforeRegistration, __ATOMIC_SEQ_CST);
    if (hook != NULL)
    {
        hook(prepare);
    }
    return thisCall(&handlerRegistration);
}

/* What the C library's pthread_atfork calls, which is linked into each library. */
STAND_IN(__register_atfork,
         (void (*prepare)(void), void (*parent)(void), void (*child)(void), void* library),
         (prepare, parent, child, library), registration(prepare))

static int asReturned(int error)
{
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

STAND_IN(pipe, (int ends[2]), (ends), asReturned(thisCall(&pipeCreation)))

STAND_IN(poll, (struct pollfd * fds, nfds_t count, int milliseconds), (fds, count, milliseconds),
         count == 1 && fds->events == POLLOUT ? asReturned(thisCall(&interruption)) : 0)

/* Of the channel alone: a trigger is two bytes long, and up to 16 of them are read at once. */
ssize_t write(int fd, const void* data, size_t size)
{
    static void* cache;
    ssize_t (*real)(int, const void*, size_t) =
        (ssize_t(*)(int, const void*, size_t))next(&cache, "write");
    const int fails = size == 2 && (asReturned(thisCall(&interruption)) != 0 ||
                                    asReturned(thisCall(&writing)) != 0);
    const ssize_t done = fails ? -1 : real(fd, data, size);
    if (size == 2 && done == 2)
    {
        thisCall(&written);
    }
    return done;
}

ssize_t read(int fd, void* data, size_t size)
{
    static void* cache;
    ssize_t (*real)(int, void*, size_t) = (ssize_t(*)(int, void*, size_t))next(&cache, "read");
    return size == 32 && asReturned(thisCall(&reading)) != 0 ? -1 : real(fd, data, size);
}

STAND_IN(zloop_poller, (void* loop, void* item, void* handler, void* argument),
         (loop, item, handler, argument), asReturned(thisCall(&zloopPoller)))

static int sdBus(const char* function)
{
    return failingSdBus != NULL && strcmp(failingSdBus, function) == 0 ? -ENOMEM : 0;
}

STAND_IN(sd_bus_message_open_container, (sd_bus_message * m, char type, const char* contents),
         (m, type, contents), sdBus("sd_bus_message_open_container"))
STAND_IN(sd_bus_message_close_container, (sd_bus_message * m), (m),
         sdBus("sd_bus_message_close_container"))
STAND_IN(sd_bus_call_async,
         (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* m, sd_bus_message_handler_t callback,
          void* data, uint64_t usec),
         (bus, slot, m, callback, data, usec), sdBus("sd_bus_call_async"))

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** m, const char* destination,
                                   const char* path, const char* interface, const char* member)
{
    static void* cache;
    int (*real)(sd_bus*, sd_bus_message**, const char*, const char*, const char*, const char*) =
        (int (*)(sd_bus*, sd_bus_message**, const char*, const char*, const char*,
                 const char*))next(&cache, "sd_bus_message_new_method_call");
    const int error = sdBus("sd_bus_message_new_method_call");
    return nothingMade || error < 0 ? error : real(bus, m, destination, path, interface, member);
}

int sd_bus_message_append(sd_bus_message* m, const char* types, ...)
{
    va_list values;
    va_start(values, types);
    int result = sdBus("sd_bus_message_append");
    if (result == 0)
    {
        result = sd_bus_message_appendv(m, types, values);
    }
    va_end(values);
    return result;
}
