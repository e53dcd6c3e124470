// The timers in plain C, so that C programs need nothing of C++. All forms share one record and
// differ in where their lines go.

#define _POSIX_C_SOURCE 200809L
#include <scoped_timer.h>

#include <dlog.h>

#include <limits.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// The lines' place is the caller's, so it comes from the record.
#define PLACE(info) (info)->file, (info)->line, (info)->function

enum
{
    levelOverLimit = 1,
    levelTrace = 9
};

// Other programs look for "%ld". Where a long has 32 bits it does not hold what takes longer than
// half an hour, so that goes by the longer type.
static bool fits(int64_t usec)
{
    return usec <= LONG_MAX && usec >= LONG_MIN;
}

// `write` takes a format and arguments, as printf.
#define WRITE_END(write, label, info)                                                              \
    (fits((info)->usec)                                                                            \
         ? write("%s.%d.%s: " label " end, usec=%ld\n", PLACE(info), (long)(info)->usec)           \
         : write("%s.%d.%s: " label " end, usec=%lld\n", PLACE(info), (long long)(info)->usec))
#define WRITE_OVER_LIMIT(write, label, info)                                                       \
    (fits((info)->usec) && fits((info)->limit_usec)                                                \
         ? write("%s.%d.%s: " label " end, over limit, usec=%ld limit_usec=%ld\n", PLACE(info),    \
                 (long)(info)->usec, (long)(info)->limit_usec)                                     \
         : write("%s.%d.%s: " label " end, over limit, usec=%lld limit_usec=%lld\n", PLACE(info),  \
                 (long long)(info)->usec, (long long)(info)->limit_usec))
#define TO_OUTPUT(...) fprintf(stdout, __VA_ARGS__)
#define TO_ERRORS(...) fprintf(stderr, __VA_ARGS__)
#define TO_TRACE(...) dlog_printf(levelTrace, ended->source, __VA_ARGS__)
#define TO_FAILURES(...) dlog_printf(levelOverLimit, ended->source, __VA_ARGS__)

ScopedTimerCInfo* ScopedTimerCInfoBuild(int64_t limit_usec, const char* file, int line,
                                        const char* function)
{
    ScopedTimerCInfo* info = calloc(1, sizeof(*info));
    if (info == NULL)
    {
        return NULL;
    }
    clock_gettime(CLOCK_MONOTONIC, &info->start);
    const char* slash = strrchr(file, '/');
    info->limit_usec = limit_usec;
    info->file = slash == NULL ? file : slash + 1;
    info->line = line;
    info->function = function;
    return info;
}

void ScopedTimerCDoEndCalculations(ScopedTimerCInfo* info)
{
    if (info == NULL)
    {
        return;
    }
    clock_gettime(CLOCK_MONOTONIC, &info->end);
    int64_t seconds = (int64_t)info->end.tv_sec - info->start.tv_sec;
    int64_t nanoseconds = (int64_t)info->end.tv_nsec - info->start.tv_nsec;
    if (nanoseconds < 0)
    {
        seconds -= 1;
        nanoseconds += 1000000000;
    }
    info->usec = seconds * 1000000 + nanoseconds / 1000;
}

void ScopedTimerCInfoRelease(ScopedTimerCInfo** info)
{
    if (info != NULL)
    {
        free(*info);
        *info = NULL;
    }
}

ScopedTimerCInfo* ScopedTimerCPrintInfoBuild(int64_t limit_usec, const char* file, int line,
                                             const char* function)
{
    ScopedTimerCInfo* info = ScopedTimerCInfoBuild(limit_usec, file, line, function);
    if (info != NULL)
    {
        fprintf(stdout, "%s.%d.%s: ScopedTimerCPrint start\n", PLACE(info));
    }
    return info;
}

void ScopedTimerCPrintInfoRelease(ScopedTimerCInfo** info)
{
    if (info == NULL || *info == NULL)
    {
        return;
    }
    const ScopedTimerCInfo* ended = *info;
    ScopedTimerCDoEndCalculations(*info);
    WRITE_END(TO_OUTPUT, "ScopedTimerCPrint", ended);
    if (ended->usec > ended->limit_usec)
    {
        WRITE_OVER_LIMIT(TO_ERRORS, "ScopedTimerCPrint", ended);
    }
    ScopedTimerCInfoRelease(info);
}

ScopedTimerCInfo* ScopedTimerCLogInfoBuild(int64_t limit_usec, uint32_t source, const char* file,
                                           int line, const char* function)
{
    ScopedTimerCInfo* info = ScopedTimerCInfoBuild(limit_usec, file, line, function);
    if (info != NULL)
    {
        info->source = source;
        dlog_printf(levelTrace, source, "%s.%d.%s: ScopedTimerCLog start\n", PLACE(info));
    }
    return info;
}

void ScopedTimerCLogInfoRelease(ScopedTimerCInfo** info)
{
    if (info == NULL || *info == NULL)
    {
        return;
    }
    const ScopedTimerCInfo* ended = *info;
    ScopedTimerCDoEndCalculations(*info);
    WRITE_END(TO_TRACE, "ScopedTimerCLog", ended);
    if (ended->usec > ended->limit_usec)
    {
        WRITE_OVER_LIMIT(TO_FAILURES, "ScopedTimerCLog", ended);
    }
    ScopedTimerCInfoRelease(info);
}
