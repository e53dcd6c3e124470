// The demo receives the library's lines itself, as any program may that defines dlog_printf: it
// shows failures among its own lines, or keeps them for the picture.

#include "report.hpp"

#include <dlog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <mutex>

namespace demo
{
namespace
{

constexpr int shownLevel = 2;    // failures
constexpr size_t keptLines = 50; // more than a screen shows

std::mutex mutex;
std::deque<std::string> lines;
bool keeping = false;

} // namespace

void KeepLog(bool keep)
{
    const std::lock_guard lock(mutex);
    keeping = keep;
}

std::string LastLog(size_t count)
{
    const std::lock_guard lock(mutex);
    std::string text;
    for (size_t i = lines.size() - std::min(count, lines.size()); i < lines.size(); ++i)
    {
        text += lines[i] + "\n";
    }
    return text;
}

} // namespace demo

extern "C" int dlog_printf(int level, unsigned int source, const char* format, ...)
{
    if (level > demo::shownLevel)
    {
        return 0;
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::string line = "log " + std::to_string(level) + " " + std::to_string(source) + " " + text;
    line.erase(line.find_last_not_of('\n') + 1);
    const std::lock_guard lock(demo::mutex);
    demo::lines.push_back(line);
    if (demo::lines.size() > demo::keptLines)
    {
        demo::lines.pop_front();
    }
    if (!demo::keeping)
    {
        std::printf("   %s\n", line.c_str());
        std::fflush(stdout);
    }
    return length;
}
