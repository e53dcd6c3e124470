#pragma once

// Test programs define dlog_printf themselves, so that every line of the library is kept and can be
// compared with what was promised.

#include <string>
#include <vector>

namespace test
{

struct LogLine
{
    int level = 0;
    unsigned int source = 0;
    std::string format;   // as the library passed it
    std::string file;     // its first value
    int line = 0;         // its second value
    std::string function; // its third value
    std::string text;     // the whole line, formatted, without "file.line.function: "
};

// Forgets what was recorded.
void ClearLog();

// All lines so far, in order; safe from any thread.
std::vector<LogLine> Log();

// The lines up to and including `level`.
std::vector<LogLine> Log(int level);

// The lines whose format is exactly `format`.
std::vector<LogLine> LogOf(const std::string& format);

// How many recorded lines have this level, source, function and text.
size_t CountLog(int level, unsigned int source, const std::string& function,
                const std::string& text);

// Lines above this level are dropped unread, as a sink with a threshold does (default: none are).
void SetLogThreshold(int level);

// Readable form for failure messages.
std::string Describe(const std::vector<LogLine>& lines);

} // namespace test
