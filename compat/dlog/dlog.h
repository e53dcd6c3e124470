/**
 * @file
 * The platform's debug log, as far as the library uses it.
 *
 * This stand-in writes to standard error and is used only where the platform has no log of its own.
 */
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
#define DLOG_C extern "C"
#else
#define DLOG_C extern
#endif

/**
 * Writes one diagnostic line: time of day (UTC), thread id, level and source in front of the text.
 *
 * Lines above the threshold are dropped before anything is formatted. The threshold comes from the
 * environment variable DLOG_LEVEL when the first line is written (default 2). A program that
 * defines this function itself receives every line instead. Control characters in the text are
 * written as `\n`, `\r` or `\xNN`, so a text from elsewhere stays one line and no terminal obeys
 * it.
 *
 * @param level   1 serious failure, 2 error, 4 misuse, 5 information, 9 trace
 * @param source  identifies the component that writes
 * @param format  printf-style
 * @return the number of bytes written, 0 for a dropped line, negative when writing failed
 *
 * Any thread may call it, also in a forked child; it takes no lock of its own and leaves errno
 * alone. It blocks as long as standard error does; when the reader of
 * standard error has gone the line is lost, without SIGPIPE.
 */
DLOG_C int dlog_printf(int level, unsigned int source, const char* format, ...)
    __attribute__((format(printf, 3, 4), visibility("default")));

#undef DLOG_C

#endif
