// A scope timed from C.

#include "scoped_timer_c.h"

#include <scoped_timer.h>

int TimedWithLog(int64_t limit, uint32_t source)
{
    __attribute__((cleanup(ScopedTimerCLogInfoRelease), unused)) ScopedTimerCInfo* timer =
        ScopedTimerCLogInfoBuild(limit, source, "src/a/b.c", 12, __func__);
    return timer->line;
}

int TimedWithPrint(int64_t limit)
{
    __attribute__((cleanup(ScopedTimerCPrintInfoRelease), unused)) ScopedTimerCInfo* timer =
        ScopedTimerCPrintInfoBuild(limit, "b.c", 34, __func__);
    return timer->line;
}
