#define _POSIX_C_SOURCE 200809L
#include <scoped_timer.h>

#include <dlog.h>

#include <limits.h>
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

// For "%ld", which other programs look for: where a long has 32 bits, what takes more than half an
// hour shows as its largest value.
static long shown(int64_t usec)
{
    return usec > LONG_MAX ? LONG_MAX : usec < LONG_MIN ? LONG_MIN : (long)usec;
}

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
    fprintf(stdout, "%s.%d.%s: ScopedTimerCPrint end, usec=%ld\n", PLACE(ended),
            shown(ended->usec));
    if (ended->usec > ended->limit_usec)
    {
        fprintf(stderr, "%s.%d.%s: ScopedTimerCPrint end, over limit, usec=%ld limit_usec=%ld\n",
                PLACE(ended), shown(ended->usec), shown(ended->limit_usec));
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
    dlog_printf(levelTrace, ended->source, "%s.%d.%s: ScopedTimerCLog end, usec=%ld\n",
                PLACE(ended), shown(ended->usec));
    if (ended->usec > ended->limit_usec)
    {
        dlog_printf(levelOverLimit, ended->source,
                    "%s.%d.%s: ScopedTimerCLog end, over limit, usec=%ld limit_usec=%ld\n",
                    PLACE(ended), shown(ended->usec), shown(ended->limit_usec));
    }
    ScopedTimerCInfoRelease(info);
}
