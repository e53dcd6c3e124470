#define _GNU_SOURCE
#include "dlog.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum
{
    defaultThreshold = 2,
    largestThreshold = 1000,
    unset = -1,
    stackLine = 1024
};

static int threshold = unset;

static int readThreshold(void)
{
    const char* text = getenv("DLOG_LEVEL");
    int value = defaultThreshold;
    if (text != NULL && *text != '\0')
    {
        char* end = NULL;
        const long parsed = strtol(text, &end, 10);
        if (*end == '\0' && parsed >= 0)
        {
            value = parsed < largestThreshold ? (int)parsed : largestThreshold;
        }
    }
    __atomic_store_n(&threshold, value, __ATOMIC_RELAXED);
    return value;
}

/* The C library's calendar functions take a lock, which a forked child may find held for ever. */
static int prefix(char* line, size_t size, int level, unsigned int source)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int second = (int)(now.tv_sec % 86400);
    return snprintf(line, size, "%02d:%02d:%02d.%06ld [%ld] <%d> {%u} ", second / 3600,
                    second / 60 % 60, second % 60, (long)(now.tv_nsec / 1000), (long)gettid(),
                    level, source);
}

/*
 * One write per line keeps the lines of several threads and processes apart. Only a line that a
 * signal or a full pipe cuts takes more.
 */
static int writeLine(char* line, size_t length)
{
    while (length > 0 && line[length - 1] == '\n')
    {
        --length;
    }
    line[length++] = '\n';
    size_t done = 0;
    while (done < length)
    {
        const ssize_t written = write(STDERR_FILENO, line + done, length - done);
        if (written < 0 && errno != EINTR)
        {
            return -1;
        }
        done += written > 0 ? (size_t)written : 0;
    }
    return (int)length;
}

__attribute__((format(printf, 3, 0))) static int formatLine(int level, unsigned int source,
                                                            const char* format, va_list arguments)
{
    char small[stackLine];
    const size_t head = (size_t)prefix(small, sizeof(small), level, source);
    va_list again;
    va_copy(again, arguments);
    const int body = vsnprintf(small + head, sizeof(small) - head, format, arguments);
    int written = -1;
    if (body >= 0 && head + (size_t)body + 1 < sizeof(small))
    {
        written = writeLine(small, head + (size_t)body);
    }
    else if (body >= 0)
    {
        const size_t size = head + (size_t)body + 2;
        char* large = malloc(size);
        if (large != NULL)
        {
            memcpy(large, small, head);
            vsnprintf(large + head, size - head, format, again);
            written = writeLine(large, head + (size_t)body);
            free(large);
        }
    }
    va_end(again);
    return written;
}

int dlog_printf(int level, unsigned int source, const char* format, ...)
{
    int limit = __atomic_load_n(&threshold, __ATOMIC_RELAXED);
    if (__builtin_expect(limit == unset, 0))
    {
        limit = readThreshold();
    }
    if (level > limit)
    {
        return 0;
    }
    const int saved = errno;
    va_list arguments;
    va_start(arguments, format);
    const int written = formatLine(level, source, format, arguments);
    va_end(arguments);
    errno = saved;
    return written;
}
