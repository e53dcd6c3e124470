#include "log_recorder.hpp"

#include <dlog.h>
#include <pthread.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace test
{
namespace
{

// A plain lock and storage that live for ever: lines also come from exit handlers, and from forked
// children, where the fork handlers below keep the lock usable.
struct Record
{
    std::mutex mutex;
    std::vector<LogLine> lines;
};

Record& TheRecord()
{
    static Record* record = [] {
        pthread_atfork([] { TheRecord().mutex.lock(); }, [] { TheRecord().mutex.unlock(); },
                       [] { TheRecord().mutex.unlock(); });
        return new Record;
    }();
    return *record;
}

std::atomic<int> threshold{1000};

std::string WithoutLocation(std::string text, const LogLine& line)
{
    const std::string location =
        line.file + "." + std::to_string(line.line) + "." + line.function + ": ";
    const size_t at = text.find(location);
    if (at != std::string::npos)
    {
        text.erase(at, location.size());
    }
    return text;
}

} // namespace

void ClearLog()
{
    const std::lock_guard lock(TheRecord().mutex);
    TheRecord().lines.clear();
}

std::vector<LogLine> Log()
{
    const std::lock_guard lock(TheRecord().mutex);
    return TheRecord().lines;
}

std::vector<LogLine> Log(int level)
{
    std::vector<LogLine> lines = Log();
    std::erase_if(lines, [=](const LogLine& line) { return line.level > level; });
    return lines;
}

std::vector<LogLine> LogOf(const std::string& format)
{
    std::vector<LogLine> lines = Log();
    std::erase_if(lines, [&](const LogLine& line) { return line.format != format; });
    return lines;
}

size_t CountLog(int level, unsigned int source, const std::string& function,
                const std::string& text)
{
    size_t count = 0;
    for (const LogLine& line : Log())
    {
        if (line.level == level && line.source == source && line.function == function &&
            line.text == text)
        {
            ++count;
        }
    }
    return count;
}

void SetLogThreshold(int level)
{
    threshold = level;
}

std::string Describe(const std::vector<LogLine>& lines)
{
    std::string all;
    for (const LogLine& line : lines)
    {
        all += std::to_string(line.level) + " " + std::to_string(line.source) + " " + line.file +
               " " + line.function + ": " + line.text + "\n";
    }
    return all;
}

} // namespace test

extern "C" int dlog_printf(int level, unsigned int source, const char* format, ...)
{
    if (level > test::threshold.load(std::memory_order_relaxed))
    {
        return 0;
    }
    test::LogLine line;
    line.level = level;
    line.source = source;
    line.format = format;
    va_list arguments;
    va_start(arguments, format);
    va_list location;
    va_copy(location, arguments);
    line.file = va_arg(location, const char*);
    line.line = va_arg(location, int);
    line.function = va_arg(location, const char*);
    va_end(location);
    va_list measure;
    va_copy(measure, arguments);
    const int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text(static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    va_end(arguments);
    line.text = test::WithoutLocation(std::move(text), line);
    const std::lock_guard lock(test::TheRecord().mutex);
    test::TheRecord().lines.push_back(std::move(line));
    return length;
}
