#pragma once

// The chapters of the demo. Each uses the library as a service would, and the simulated BMC of
// bmcbus-simulator on the other side of the bus.

#include "report.hpp"

#include <string>

namespace demo
{

// What the object mapper knows.
void Discover(Report& report);

// Values read through direct proxies, and one that is written.
void ReadAndWrite(Report& report);

// Every method of the catalogue, once.
void CallMethods(Report& report);

// What a wrong name and a missing service look like.
void Fail(Report& report);

// How long a call takes.
void Measure(Report& report);

// Cached proxies, subscribers and live objects follow what happens, for about `seconds`; a picture
// where standard output is a terminal.
void Live(Report& report, unsigned int seconds);

// An entry in the event log; `simulatorOutput` is the file into which the simulator prints it.
void FileEvent(Report& report, const std::string& simulatorOutput);

// Work that changes threads: funnel, channel, pool.
void ChangeThreads(Report& report);

} // namespace demo
