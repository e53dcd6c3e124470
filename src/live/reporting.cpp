// What users and the log are told about a followed object: its report, and lines for what was
// refused.

#include "live/reporting.hpp"

#include "bus/bus.hpp"
#include "live/hub.hpp"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace bmcbus
{
namespace live
{

LiveReport ReportOf(const Entry& entry)
{
    LiveReport report;
    report.path = entry.path();
    report.interface = entry.interface();
    if (entry.signal != nullptr)
    {
        report.interface += std::string(".") + entry.signal->member;
    }
    report.state = entry.state();
    report.since = std::chrono::microseconds(Now() - entry.since);
    if (entry.peer != nullptr)
    {
        report.service = entry.peer->name;
        report.owner = entry.peer->owner;
    }
    if (entry.failure)
    {
        report.error = entry.failure->name;
        report.error_text = entry.failure->text;
    }
    report.reads = entry.reads;
    report.signals = entry.signals;
    report.strangers = entry.strangers;
    report.refused = entry.refused;
    report.missed = entry.missed;
    report.slowest_callback = std::chrono::microseconds(entry.slowest);
    return report;
}

namespace
{

const Hub* HubFor(sd_bus* bus)
{
    if (bus == nullptr)
    {
        // Without one there are no live objects, and none is opened for the question.
        if (sd_bus_default_system(nullptr) <= 0)
        {
            return nullptr;
        }
        const BusRef own = DefaultBus();
        return Hub::Find(own.get());
    }
    return Hub::Find(bus);
}

// One line; the numbers are those of LiveReport.
std::string Row(const LiveReport& report, size_t width)
{
    char text[160];
    const double since = std::chrono::duration<double>(report.since).count();
    const double slowest =
        std::chrono::duration<double, std::milli>(report.slowest_callback).count();
    static_cast<void>(std::snprintf(text, sizeof(text),
                                    " %-7s %9.1f s  %-10.64s %6" PRIu32 " %7" PRIu32 " %9" PRIu32
                                    " %7" PRIu32 " %8.1f ms  ",
                                    Name(report.state), since, report.owner.c_str(), report.reads,
                                    report.signals, report.strangers, report.refused, slowest));
    std::string line = report.path;
    line.resize(std::max(width, line.size()), ' ');
    return line + text + report.error + "\n";
}

} // namespace
} // namespace live

LiveReports ReportLive(sd_bus* bus)
{
    LiveReports reports;
    if (const live::Hub* hub = live::HubFor(bus))
    {
        reports.rules = hub->rules().size();
        reports.needless = hub->needless();
        reports.in_flight = hub->in_flight();
        hub->index().ForAll([&](const live::Entry& entry)
                            { reports.objects.push_back(live::ReportOf(entry)); });
    }
    std::ranges::sort(reports.objects, {},
                      [](const LiveReport& report)
                      { return std::tie(report.path, report.interface, report.service); });
    return reports;
}

std::string ReportLiveTable(sd_bus* bus)
{
    const LiveReports reports = ReportLive(bus);
    size_t width = 4;
    for (const LiveReport& report : reports.objects)
    {
        width = std::max(width, std::min<size_t>(report.path.size(), 200));
    }
    char heading[512];
    static_cast<void>(std::snprintf(
        heading, sizeof(heading), "%-*s %-7s %9s    %-10s %6s %7s %9s %7s %8s     %s\n",
        static_cast<int>(width), "path", "state", "since", "owner", "reads", "signals", "strangers",
        "refused", "slowest", "last error"));
    std::string table = heading;
    for (const LiveReport& report : reports.objects)
    {
        table += live::Row(report, width);
    }
    char totals[160];
    static_cast<void>(
        std::snprintf(totals, sizeof(totals),
                      "%zu objects, %zu rules, %zu reads in flight, %" PRIu64 " needless signals\n",
                      reports.objects.size(), reports.rules, reports.in_flight, reports.needless));
    return table + totals;
}

} // namespace bmcbus
