/**
 * @file
 * Measures how long a stretch of code takes.
 *
 * A build function starts the clock and returns a record; a release function, given the address of
 * the caller's handle, stops it, reports, frees the record and clears the handle. So a release
 * function can be the clean-up action of a scope:
 *
 * @code
 * void update(void)
 * {
 *     __attribute__((cleanup(ScopedTimerCLogInfoRelease), unused)) ScopedTimerCInfo* timer =
 *         ScopedTimerCLogInfoBuild(5000, 300, __FILE__, __LINE__, __func__);
 *     ... // a line at the start, a line at the end, one more if it took more than 5 ms
 * }
 * @endcode
 *
 * C++ code can use bmcbus::ScopedTimer, at the end of this file.
 *
 * Nothing here blocks but writing the lines; no state is shared. Any thread may call, and after
 * `fork` a record goes on in both processes. A record belongs to one caller, who may hand it to
 * another thread. A measurement costs one small allocation, two readings of the monotonic clock and
 * its lines. On 32-bit machines code
 * that uses this header must be built with the library's -D_TIME_BITS; other code does not compile.
 */
#ifndef BMCBUS_SCOPED_TIMER_H
#define BMCBUS_SCOPED_TIMER_H

#include <bmcbus/config.h>
#include <bmcbus/export.h>

#include <stdint.h>
#include <time.h>

/** @cond internal */
#ifdef __cplusplus
#define BMCBUS_STATIC_ASSERT static_assert
#else
#define BMCBUS_STATIC_ASSERT _Static_assert
#endif
BMCBUS_STATIC_ASSERT(sizeof(time_t) == BMCBUS_TIME_SIZE,
                     "this code is built with another -D_TIME_BITS than libbmcbus was");
#undef BMCBUS_STATIC_ASSERT
/** @endcond */

#ifdef __cplusplus
extern "C"
{
#endif

    /** One measurement. It points to the caller's texts, which must stay; literals do. */
    typedef struct ScopedTimerCInfo
    {
        struct timespec start; /**< monotonic clock when the record was built */
        struct timespec end;   /**< monotonic clock when the measurement ended */
        int64_t limit_usec;    /**< microseconds; more is over the limit */
        int64_t usec;          /**< elapsed microseconds, once ended */
        const char* file;      /**< what follows the last slash of the caller's file name */
        int32_t line;          /**< the caller's line */
        const char* function;  /**< the caller's function */
        uint32_t source;       /**< log source id of the logging flavour, else 0 */
    } ScopedTimerCInfo;

    /**
     * Starts a silent measurement.
     *
     * @param limit_usec  microseconds, kept for the caller
     * @param file, line, function  the caller's place, usually `__FILE__, __LINE__, __func__`
     * @return the record, which ScopedTimerCInfoRelease() frees, or null without memory
     */
    BMCBUS_EXPORT ScopedTimerCInfo* ScopedTimerCInfoBuild(int64_t limit_usec, const char* file,
                                                          int line, const char* function);

    /** Ends a measurement: sets `end` and `usec`. Does nothing for a null record. */
    BMCBUS_EXPORT void ScopedTimerCDoEndCalculations(ScopedTimerCInfo* info);

    /** Frees the record and clears the handle. Does nothing if @p info or the handle is null. */
    BMCBUS_EXPORT void ScopedTimerCInfoRelease(ScopedTimerCInfo** info);

    /** As ScopedTimerCInfoBuild(), and prints the start line to standard output. */
    BMCBUS_EXPORT ScopedTimerCInfo* ScopedTimerCPrintInfoBuild(int64_t limit_usec, const char* file,
                                                               int line, const char* function);

    /**
     * Ends the measurement, prints the time to standard output and, when it is over the limit, a
     * line to standard error; then releases. Does nothing if @p info or the handle is null.
     */
    BMCBUS_EXPORT void ScopedTimerCPrintInfoRelease(ScopedTimerCInfo** info);

    /** As ScopedTimerCInfoBuild(), and logs the start line at level 9 under the id @p source. */
    BMCBUS_EXPORT ScopedTimerCInfo* ScopedTimerCLogInfoBuild(int64_t limit_usec, uint32_t source,
                                                             const char* file, int line,
                                                             const char* function);

    /**
     * Ends the measurement, logs the time at level 9 and, when it is over the limit, a line at
     * level 1; then releases. Does nothing if @p info or the handle is null.
     */
    BMCBUS_EXPORT void ScopedTimerCLogInfoRelease(ScopedTimerCInfo** info);

#ifdef __cplusplus
} // extern "C"

#include <chrono>

namespace bmcbus
{

/**
 * Times the scope it lives in.
 *
 * @code
 * void Update()
 * {
 *     const auto timer = bmcbus::ScopedTimer::Log(std::chrono::milliseconds(5), 300);
 *     ...
 * }
 * @endcode
 *
 * Without memory for the record the scope is not timed; nothing throws. The place that is reported
 * is the caller's.
 */
class [[nodiscard]] ScopedTimer
{
  public:
    /** Reports through the log, under the id @p source. */
    static ScopedTimer Log(std::chrono::microseconds limit, uint32_t source,
                           const char* file = __builtin_FILE(), int line = __builtin_LINE(),
                           const char* function = __builtin_FUNCTION()) noexcept
    {
        return {ScopedTimerCLogInfoBuild(limit.count(), source, file, line, function),
                ScopedTimerCLogInfoRelease};
    }

    /** Reports to standard output and standard error. */
    static ScopedTimer Print(std::chrono::microseconds limit, const char* file = __builtin_FILE(),
                             int line = __builtin_LINE(),
                             const char* function = __builtin_FUNCTION()) noexcept
    {
        return {ScopedTimerCPrintInfoBuild(limit.count(), file, line, function),
                ScopedTimerCPrintInfoRelease};
    }

    ScopedTimer(const ScopedTimer&) = delete;
    ScopedTimer& operator=(const ScopedTimer&) = delete;

    /** Ends the measurement and reports. */
    ~ScopedTimer() { release_(&info_); }

  private:
    ScopedTimer(ScopedTimerCInfo* info, void (*release)(ScopedTimerCInfo**)) noexcept :
        info_(info), release_(release)
    {
    }

    ScopedTimerCInfo* info_;
    void (*release_)(ScopedTimerCInfo**);
};

} // namespace bmcbus
#endif

#endif
