/*
 * The stand-in for the system's log: filters by level before anything else, then writes each line
 * to standard error with a single write, so that lines of several threads stay whole.
 */

#define _GNU_SOURCE
#include "dlog.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
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
 * What the bytes at `text` would do to a line or a terminal: how many of them are one control
 * character (also U+0080 to U+009F, in two bytes), or 0 for what is shown. A tab is harmless.
 */
static size_t controlAt(const char* text, size_t left)
{
    const unsigned char first = (unsigned char)text[0];
    if (first == 0xc2 && left > 1)
    {
        const unsigned char second = (unsigned char)text[1];
        return second >= 0x80 && second <= 0x9f ? 2 : 0;
    }
    return (first < 0x20 && first != '\t') || first == 0x7f ? 1 : 0;
}

/* Copies text with its control characters spelled: "\n", "\r", "\xNN". Gives the new length; only
 * counts without a place to copy to. */
static size_t spell(char* to, const char* text, size_t length)
{
    static const char digits[] = "0123456789abcdef";
    size_t out = 0;
    for (size_t at = 0; at < length;)
    {
        const size_t control = controlAt(text + at, length - at);
        char spelled[8] = {text[at]};
        size_t size = 0;
        for (size_t end = at + control; at < end; ++at)
        {
            const unsigned char byte = (unsigned char)text[at];
            spelled[size++] = '\\';
            spelled[size++] = (char)(byte == '\n' ? 'n' : byte == '\r' ? 'r' : 'x');
            if (byte != '\n' && byte != '\r')
            {
                spelled[size++] = digits[byte / 16];
                spelled[size++] = digits[byte % 16];
            }
        }
        if (control == 0)
        {
            size = 1;
            ++at;
        }
        if (to != NULL)
        {
            memcpy(to + out, spelled, size);
        }
        out += size;
    }
    return out;
}

/*
 * One write per line keeps the lines of several threads and processes apart. Only a line that a
 * signal or a full pipe cuts takes more.
 */
static int writeAll(const char* line, size_t length)
{
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

/*
 * A reader of standard error that has gone must not end the process: the signal of such a write is
 * held back and taken away again, unless one was there before.
 */
static int writeLine(const char* line, size_t length)
{
    sigset_t pipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    const bool mine = sigismember(&pending, SIGPIPE) == 0;
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    const int written = writeAll(line, length);
    if (written < 0 && errno == EPIPE && mine)
    {
        const struct timespec now = {0, 0};
        while (sigtimedwait(&pipe, NULL, &now) < 0 && errno == EINTR)
        {
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    return written;
}

/* Ends the line, whose text begins behind `head` and is followed by room for one byte more. */
static int finishLine(char* line, size_t head, size_t length)
{
    while (length > head && line[length - 1] == '\n')
    {
        --length;
    }
    const size_t spelled = spell(NULL, line + head, length - head);
    if (spelled == length - head)
    {
        line[length] = '\n';
        return writeLine(line, length + 1);
    }
    char* safe = malloc(head + spelled + 1);
    if (safe == NULL)
    {
        return -1;
    }
    memcpy(safe, line, head);
    spell(safe + head, line + head, length - head);
    safe[head + spelled] = '\n';
    const int written = writeLine(safe, head + spelled + 1);
    free(safe);
    return written;
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
        written = finishLine(small, head, head + (size_t)body);
    }
    else if (body >= 0)
    {
        const size_t size = head + (size_t)body + 2;
        char* large = malloc(size);
        if (large != NULL)
        {
            memcpy(large, small, head);
            vsnprintf(large + head, size - head, format, again);
            written = finishLine(large, head, head + (size_t)body);
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
