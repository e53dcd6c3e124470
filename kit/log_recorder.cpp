// Records the library's lines in place of the real sink: the program defines dlog_printf itself.

#include <bmcbus/testing/log_recorder.hpp>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace bmcbus::testing
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
    static Record* record = []
    {
        pthread_atfork([] { TheRecord().mutex.lock(); }, [] { TheRecord().mutex.unlock(); },
                       [] { TheRecord().mutex.unlock(); });
        return new Record;
    }();
    return *record;
}

std::atomic<int> threshold{1000};

// The user's own lines need not carry a location.
bool StartsWithLocation(const std::string& format)
{
    const size_t location = format.find("%s.%d.%s: ");
    return location != std::string::npos && format.find('%') == location;
}

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

int RecordLogLine(int level, unsigned int source, const char* format, va_list values)
{
    if (level > threshold.load(std::memory_order_relaxed))
    {
        return 0;
    }
    LogLine line;
    line.level = level;
    line.source = source;
    line.format = format;
    if (StartsWithLocation(line.format))
    {
        va_list location;
        va_copy(location, values);
        line.file = va_arg(location, const char*);
        line.line = va_arg(location, int);
        line.function = va_arg(location, const char*);
        va_end(location);
    }
    va_list measure;
    va_copy(measure, values);
    const int length = std::max(0, vsnprintf(nullptr, 0, format, measure));
    va_end(measure);
    std::string text(static_cast<size_t>(length), '\0');
    vsnprintf(text.data(), text.size() + 1, format, values);
    line.text = line.file.empty() ? text : WithoutLocation(std::move(text), line);
    const std::lock_guard lock(TheRecord().mutex);
    TheRecord().lines.push_back(std::move(line));
    return length;
}

} // namespace bmcbus::testing
