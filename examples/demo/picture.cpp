// On a terminal curses redraws in place; elsewhere each change is a line.

#include "picture.hpp"

#include "report.hpp"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace demo
{
namespace
{

// A bar of `width` cells, filled as far as `share` says.
std::string Bar(double share, int width)
{
    const int filled = static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * width));
    std::string bar;
    for (int i = 0; i < width; ++i)
    {
        bar += i < filled ? "#" : ".";
    }
    return bar;
}

class Lines : public Picture
{
  public:
    void Draw(const Scene& scene) override
    {
        std::ostringstream line;
        line << "   power "
             << (scene.watts.empty() ? "?" : std::to_string(std::lround(scene.watts.back())))
             << " W  fans";
        for (const auto& [name, reading] : scene.fans)
        {
            line << ' ' << static_cast<int>(std::get<1>(reading)) << '%';
        }
        line << "  fans " << (scene.fansReady ? "ready " : "not ready ") << scene.fanSignals
             << "  power " << (scene.powerReady ? "ready " : "not ready ") << scene.powerSignals
             << "  data signals " << scene.dataSignals;
        if (scene.happening != shown)
        {
            shown = scene.happening;
            std::cout << "   - " << shown << '\n';
            for (const std::string& each : scene.live)
            {
                std::cout << "     " << each << '\n';
            }
        }
        std::cout << line.str() << std::endl;
    }

  private:
    std::string shown;
};

class Screen : public Picture
{
  public:
    Screen() : terminal(newterm(nullptr, stdout, stdin))
    {
        if (terminal != nullptr)
        {
            curs_set(0);
            KeepLog(true);
        }
    }
    ~Screen() override
    {
        if (terminal != nullptr)
        {
            endwin();
            delscreen(terminal);
            KeepLog(false);
        }
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    bool Works() const { return terminal != nullptr; }

    // curses compares with what the terminal shows and sends the difference only.
    void Draw(const Scene& scene) override
    {
        erase();
        row = 0;
        Put("libbmcbus demo: " + scene.happening);
        ++row;
        DrawFans(scene);
        ++row;
        DrawPower(scene);
        ++row;
        for (const std::string& line : scene.live)
        {
            Put(line);
        }
        ++row;
        Put("last lines of the library's log");
        std::istringstream log(LastLog(static_cast<size_t>(std::max(0, LINES - row))));
        for (std::string line; std::getline(log, line);)
        {
            Put("  " + line);
        }
        refresh();
    }

  private:
    static std::string State(bool ready, unsigned int signals)
    {
        return (ready ? "ready, " : "NOT READY, ") + std::to_string(signals) + " signals";
    }

    void Put(const std::string& text) { mvaddnstr(row++, 0, text.c_str(), COLS); }

    void DrawFans(const Scene& scene)
    {
        Put("fans   " + State(scene.fansReady, scene.fanSignals) + ", " +
            std::to_string(scene.dataSignals) + " data signals");
        const int width = std::clamp(COLS - 24, 10, 60);
        for (const auto& [name, reading] : scene.fans)
        {
            const auto percent = std::get<1>(reading);
            Put("  " + name + std::string(10 - std::min<size_t>(name.size(), 9), ' ') +
                Bar(percent / 100.0, width) + ' ' + std::to_string(percent) + " %");
        }
    }

    // The last values as columns, the newest on the right.
    void DrawPower(const Scene& scene)
    {
        Put("power  " + State(scene.powerReady, scene.powerSignals));
        if (scene.watts.empty())
        {
            return;
        }
        const int height = std::clamp(LINES - row - 6, 3, 8);
        const auto width = static_cast<size_t>(std::clamp(COLS - 12, 10, 100));
        const size_t first = scene.watts.size() - std::min(width, scene.watts.size());
        const auto begin = scene.watts.begin() + static_cast<std::ptrdiff_t>(first);
        const auto [least, most] = std::minmax_element(begin, scene.watts.end());
        // A little below the least, so that each value shows.
        const double bottom = std::max(0.0, *least - 1 - (*most - *least) / 4);
        for (int level = height; level > 0; --level)
        {
            std::string line(width, ' ');
            for (size_t i = first; i < scene.watts.size(); ++i)
            {
                const double share = (scene.watts[i] - bottom) / (*most - bottom);
                line[i - first] = share * height > level - 0.5 ? '|' : ' ';
            }
            const std::string label = level == height ? Watts(*most)
                                      : level == 1    ? Watts(bottom)
                                                      : "";
            std::string text = "  " + label;
            text.append(9 - label.size(), ' ');
            Put(text + line);
        }
    }

    static std::string Watts(double watts) { return std::to_string(std::lround(watts)) + " W"; }

    SCREEN* terminal;
    int row = 0;
};

} // namespace

std::unique_ptr<Picture> MakePicture()
{
    const char* type = std::getenv("TERM");
    if (isatty(STDOUT_FILENO) != 0 && type != nullptr && std::string(type) != "dumb")
    {
        std::cout.flush();
        auto screen = std::make_unique<Screen>();
        if (screen->Works())
        {
            return screen;
        }
    }
    return std::make_unique<Lines>();
}

} // namespace demo
