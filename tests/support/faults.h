/*
 * Programs that link faults.c have these system calls fail on request, in the libraries as well.
 */
#pragma once

#include <pthread.h>

#ifdef __cplusplus
#define FAULT_THREAD_LOCAL constinit thread_local
extern "C"
{
#else
#define FAULT_THREAD_LOCAL _Thread_local
#endif

    struct Fault
    {
        int calls; /* since FailCalls() */
        int first;
        int last;
        int error;
    };

    extern struct Fault threadCreation;
    extern struct Fault keyCreation;
    extern struct Fault handlerRegistration;
    extern struct Fault condWait;
    extern struct Fault broadcast;
    extern struct Fault join;
    extern struct Fault pipeCreation;
    extern struct Fault writing;      /* of a trigger of the channel */
    extern struct Fault written;      /* triggers, to be counted */
    extern struct Fault reading;      /* of triggers */
    extern struct Fault interruption; /* of a trigger's write, or of a look at the pipe */
    extern struct Fault zloopPoller;

    /* Of the calls from now on, `count` fail with `error`, after the first `good` ones. */
    void FailCalls(struct Fault* fault, int good, int count, int error);

    /* How many calls were made since. */
    int CountCalls(const struct Fault* fault);

    /* Called before fork handlers are registered; any thread. */
    extern void (*beforeRegistration)(void (*prepare)(void));

    /* Locking this mutex fails with EINVAL on this thread. */
    extern FAULT_THREAD_LOCAL pthread_mutex_t* brokenMutex;

    /* The next call of this thread returns that number, of locks the next after the good ones. */
    extern FAULT_THREAD_LOCAL int goodLocks;
    extern FAULT_THREAD_LOCAL int nextLockFails;
    extern FAULT_THREAD_LOCAL int nextUnlockFails;

    /* This function of sd-bus returns -ENOMEM on this thread; null for none. */
    extern FAULT_THREAD_LOCAL const char* failingSdBus;

    /* sd_bus_message_new_method_call() reports success without a message on this thread. */
    extern FAULT_THREAD_LOCAL int nothingMade;

#ifdef __cplusplus
}
#endif
