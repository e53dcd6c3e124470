#pragma once

/* The timers as C code uses them. */

#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

    /* Each times its own body with a clean-up action and returns what the body saw. */
    int TimedWithLog(int64_t limit, uint32_t source);
    int TimedWithPrint(int64_t limit);

#ifdef __cplusplus
}
#endif
